// Packs: chosen voices and airlines exported as a .cln download, and an
// uploaded pack imported with the summary the service gives.
import { call, getJson } from '../api.js';
import { busy, errorLine, field, fileName, h, humanBytes, replaceUrl, showError } from '../dom.js';
import { t } from '../i18n.js';
import { voiceLabel } from './choices.js';

export const id = 'packs';

let packUrl = null;

export function render(root) {
  const voiceBox = h('fieldset', {}, h('legend', {}, t('packs.voices')));
  const airlineBox = h('fieldset', {}, h('legend', {}, t('packs.airlines')));
  const exportButton = h('button', { type: 'submit', class: 'primary' }, t('packs.export'));
  const exportError = errorLine();
  const link = h('a', { class: 'button', hidden: true }, '');
  const upload = h('input', { type: 'file', accept: '.cln,.zip,application/zip' });
  const importButton = h('button', { type: 'submit', class: 'primary' }, t('packs.import'));
  const importError = errorLine();
  const summary = h('div', { 'aria-live': 'polite' });
  const loadError = errorLine();

  function checkbox(name, value, label) {
    return h('label', { class: 'check' }, h('input', { type: 'checkbox', name, value }), label);
  }
  Promise.all([getJson('/v1/voices'), getJson('/v1/airlines')]).then(([{ voices }, { airlines }]) => {
    voiceBox.append(...(voices.length ? voices.map((v) => checkbox('voice', v.id, voiceLabel(v)))
      : [h('p', {}, t('voices.none'))]));
    const codes = [...new Set(airlines.map((a) => a.airline))];
    airlineBox.append(...(codes.length ? codes.map((c) => checkbox('airline', c, c)) : [h('p', {}, t('bind.none'))]));
  }).catch((e) => showError(loadError, e));

  const exportForm = h('form', { class: 'card', 'aria-labelledby': 'packs-export', onsubmit: (event) => {
    event.preventDefault();
    const chosen = (name) => [...exportForm.querySelectorAll(`input[name=${name}]:checked`)].map((c) => c.value);
    busy(exportButton, exportError, async () => {
      const response = await call('POST', '/v1/packs/export', { json: { voices: chosen('voice'), airlines: chosen('airline') } });
      const blob = await response.blob();
      packUrl = replaceUrl(packUrl, blob);
      link.href = packUrl;
      link.download = fileName(response, 'kelvo.cln');
      link.textContent = t('packs.save', { name: link.download, size: humanBytes(blob.size) });
      link.hidden = false;
      link.click();
    });
  } },
  h('h3', { id: 'packs-export' }, t('packs.exportTitle')), loadError,
  h('div', { class: 'row' }, voiceBox, airlineBox),
  h('div', { class: 'actions' }, exportButton, link, exportError));

  const importForm = h('form', { class: 'card', 'aria-labelledby': 'packs-import', onsubmit: (event) => {
    event.preventDefault();
    busy(importButton, importError, async () => {
      if (!upload.files[0]) throw new Error(t('packs.noFile'));
      const answer = await (await call('POST', '/v1/packs/import', { body: upload.files[0], type: 'application/zip' })).json();
      summary.replaceChildren(h('p', { class: 'ok' }, answer.summary),
        h('p', {}, t('packs.counts', { voices: answer.voices, added: answer.voices_added, reused: answer.voices_reused,
          bindings: answer.bindings, clips: answer.clips })),
        answer.notes.length ? h('ul', {}, answer.notes.map((n) => h('li', {}, n))) : null);
    });
  } },
  h('h3', { id: 'packs-import' }, t('packs.importTitle')),
  field(t('packs.file'), upload),
  h('div', { class: 'actions' }, importButton, importError), summary);

  root.append(h('p', { class: 'lead' }, t('packs.lead')), exportForm, importForm);
}
