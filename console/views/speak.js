// Speak: one line through POST /v1/tts, played in the page and offered as a
// download, with what the service says about it (cache, voice, engine, time).
import { call, getJson } from '../api.js';
import { busy, errorLine, field, h, replaceUrl, select } from '../dom.js';
import { t } from '../i18n.js';
import { genderOptions, languageOptions, voiceLabel } from './choices.js';

let lastUrl = null;

export const id = 'speak';

export function render(root) {
  const text = h('textarea', { rows: 3, required: true, maxlength: 5000 });
  const airline = h('input', { type: 'text', maxlength: 3, autocomplete: 'off', class: 'code' });
  const language = select(languageOptions(), 'auto');
  const gender = select(genderOptions(), 'default');
  const speed = h('input', { type: 'number', min: 0.5, max: 2, step: 0.1, value: '1' });
  const style = h('input', { type: 'text' });
  const voice = select([['', t('speak.voiceAuto')]], '');
  const button = h('button', { type: 'submit', class: 'primary' }, t('speak.go'));
  const error = errorLine();
  const audio = h('audio', { controls: true, preload: 'auto', 'aria-label': t('speak.player') });
  const download = h('a', { class: 'button', download: 'kelvo.wav', hidden: true }, t('speak.download'));
  const facts = h('dl', { class: 'facts', 'aria-live': 'polite' });
  const result = h('section', { class: 'result', hidden: true, 'aria-label': t('speak.result') }, audio, download, facts);

  getJson('/v1/voices').then(({ voices }) => {
    for (const v of voices) voice.append(h('option', { value: v.id }, voiceLabel(v)));
  }).catch(() => {});

  const form = h('form', { class: 'card', onsubmit: (event) => {
    event.preventDefault();
    busy(button, error, async () => {
      const started = performance.now();
      const response = await call('POST', '/v1/tts', { json: {
        text: text.value, airline: airline.value.trim(), language: language.value, gender: gender.value,
        speed: Number(speed.value) || 1, style: style.value, voice: voice.value,
      } });
      const blob = await response.blob();
      const wall = Math.round(performance.now() - started);
      lastUrl = replaceUrl(lastUrl, blob);
      audio.src = lastUrl;
      download.href = lastUrl;
      download.hidden = false;
      const hit = response.headers.get('X-KELVO-Cache') === 'hit';
      facts.replaceChildren(...[
        [t('speak.cache'), hit ? t('speak.hit') : t('speak.miss')],
        [t('speak.voice'), response.headers.get('X-KELVO-Voice')],
        [t('speak.engine'), response.headers.get('X-KELVO-Engine')],
        [t('speak.wall'), `${wall} ms`],
        [t('speak.synth'), `${response.headers.get('X-KELVO-Synth-Ms') || 0} ms`],
        [t('speak.duration'), `${((Number(response.headers.get('X-KELVO-Duration-Ms')) || 0) / 1000).toFixed(1)} s`],
      ].flatMap(([k, v]) => [h('dt', {}, k), h('dd', { 'data-fact': k }, v || '—')]));
      result.hidden = false;
      audio.play().catch(() => {});
    });
  } },
  field(t('speak.text'), text),
  h('div', { class: 'row' },
    field(t('common.airline'), airline, t('common.airlineHint')),
    field(t('common.language'), language),
    field(t('common.gender'), gender),
    field(t('speak.speed'), speed),
  ),
  h('div', { class: 'row' }, field(t('speak.style'), style), field(t('speak.voiceField'), voice)),
  h('div', { class: 'actions' }, button, error));

  root.append(h('p', { class: 'lead' }, t('speak.lead')), form, result);
  text.focus();
}
