// Bindings: which voice speaks for an airline in a language and gender, and
// the default voice of each language and gender, as editable tables. Every
// save is one PUT; choosing no voice removes the binding.
import { getJson, sendJson } from '../api.js';
import { busy, errorLine, field, h, select, showError, stackTable } from '../dom.js';
import { t } from '../i18n.js';
import { genderName, genderOptions, languageName, languageOptions, voiceLabel } from './choices.js';

export const id = 'bindings';

export function render(root) {
  const boxes = { airlines: h('div'), defaults: h('div') };
  const loadError = errorLine();
  root.append(loadError, boxes.airlines, boxes.defaults);
  let voiceOptions = [];

  // One table anew after a save in it: the other keeps whatever is being typed there.
  async function load(kind) {
    const answer = await getJson(`/v1/${kind}`);
    boxes[kind].replaceChildren(table(kind, answer[kind], voiceOptions, () => load(kind)));
  }

  getJson('/v1/voices').then(({ voices }) => {
    voiceOptions = [['', t('bind.noVoice')], ...voices.map((v) => [v.id, voiceLabel(v)])];
    return Promise.all([load('airlines'), load('defaults')]);
  }).catch((error) => showError(loadError, error));
}

function table(kind, bindings, voiceOptions, reload) {
  const airline = kind === 'airlines';
  const rows = bindings.map((b) => {
    const name = airline ? `${b.airline} · ${languageName(b.language)} · ${genderName(b.gender)}`
      : `${languageName(b.language)} · ${genderName(b.gender)}`;
    const voice = select(voiceOptions, b.voice, { 'aria-label': t('bind.voiceFor', { what: name }) });
    const save = h('button', { type: 'button', class: 'small', 'aria-label': t('bind.saveFor', { what: name }) },
      t('bind.save'));
    const line = errorLine();
    save.addEventListener('click', () => busy(save, line, async () => {
      await sendJson('PUT', `/v1/${kind}`, { airline: b.airline, language: b.language, gender: b.gender, voice: voice.value });
      await reload();
    }));
    return h('tr', { 'data-key': b.key },
      airline ? h('td', { 'data-label': t('common.airline') }, h('strong', { class: 'code' }, b.airline)) : null,
      h('td', { 'data-label': t('common.language') }, languageName(b.language)),
      h('td', { 'data-label': t('common.gender') }, genderName(b.gender)),
      h('td', {}, voice), h('td', {}, save, line));
  });

  const newAirline = h('input', { type: 'text', maxlength: 3, required: true, class: 'code', autocomplete: 'off' });
  const newLanguage = select(languageOptions(), 'auto');
  const newGender = select(genderOptions(), 'default');
  const newVoice = select(voiceOptions.slice(1), voiceOptions[1] ? voiceOptions[1][0] : '', { required: true });
  const add = h('button', { type: 'submit', class: 'primary' }, t('bind.add'));
  const addError = errorLine();
  const form = h('form', { class: 'row add', onsubmit: (event) => {
    event.preventDefault();
    busy(add, addError, async () => {
      await sendJson('PUT', `/v1/${kind}`, { airline: airline ? newAirline.value.trim() : undefined,
        language: newLanguage.value, gender: newGender.value, voice: newVoice.value });
      await reload();
    });
  } },
  airline ? field(t('common.airline'), newAirline, t('common.airlineHint')) : null,
  field(t('common.language'), newLanguage), field(t('common.gender'), newGender), field(t('bind.voice'), newVoice),
  h('div', { class: 'actions' }, add, addError));

  const heads = [airline ? t('common.airline') : null, t('common.language'), t('common.gender'), t('bind.voice'), '']
    .filter((x) => x !== null);
  const title = airline ? t('bind.airlinesTitle') : t('bind.defaultsTitle');
  const titleId = `bind-${kind}`;
  return h('section', { class: 'card', 'aria-labelledby': titleId },
    h('h3', { id: titleId }, title),
    h('p', { class: 'hint' }, airline ? t('bind.airlinesHint') : t('bind.defaultsHint')),
    rows.length ? h('div', { class: 'table-wrap' }, stackTable(heads, rows)) : h('p', {}, t('bind.none')),
    h('h4', {}, airline ? t('bind.addAirline') : t('bind.addDefault')), form);
}
