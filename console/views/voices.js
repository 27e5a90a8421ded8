// Voices: the library with each voice's reference clips (playable), removal
// after a confirmation, and cloning from uploaded files or the microphone.
import { call, getJson, sendJson, voicePath } from '../api.js';
import { base64Of, busy, errorLine, field, h, replaceUrl, select, showError, stackTable, statusLine } from '../dom.js';
import { t } from '../i18n.js';
import { WavRecorder } from '../recorder.js';
import { genderName, genderOptions, languageName, languageOptions } from './choices.js';

export const id = 'voices';

let clipUrl = null;

export function render(root) {
  const list = h('div', { class: 'table-wrap' });
  const listError = errorLine();
  const player = h('audio', { controls: true, class: 'clip-player', 'aria-label': t('voices.clipPlayer'), hidden: true });

  async function playClip(voice, index, button, line) {
    await busy(button, line, async () => {
      const blob = await (await call('GET', `${voicePath(voice.id)}/clips/${index}`)).blob();
      clipUrl = replaceUrl(clipUrl, blob);
      player.src = clipUrl;
      player.hidden = false;
      await player.play().catch(() => {});
    });
  }

  async function load() {
    showError(listError, null);
    let voices;
    try {
      ({ voices } = await getJson('/v1/voices'));
    } catch (error) {
      showError(listError, error);
      return;
    }
    const rows = voices.map((voice) => {
      const line = errorLine();
      const clips = voice.clips.map((clip, index) => {
        const button = h('button', { type: 'button', class: 'small',
          'aria-label': t('voices.playClip', { n: index + 1, voice: voice.display || voice.id }),
          title: clip.text }, `▶ ${index + 1}`);
        button.addEventListener('click', () => playClip(voice, index, button, line));
        return button;
      });
      const remove = h('button', { type: 'button', class: 'danger small',
        'aria-label': t('voices.removeOne', { voice: voice.display || voice.id }) }, t('voices.remove'));
      remove.addEventListener('click', () => {
        if (!window.confirm(t('voices.confirm', { voice: voice.display || voice.id }))) return;
        busy(remove, line, async () => {
          await call('DELETE', voicePath(voice.id));
          await load();
        });
      });
      return h('tr', { 'data-voice': voice.id },
        h('td', {}, h('strong', {}, voice.display || voice.id), h('br'), h('code', {}, voice.id)),
        h('td', { 'data-label': t('voices.kind') }, voice.kind === 'cloned' ? t('voices.cloned') : t('voices.profile')),
        h('td', { 'data-label': t('common.language') }, languageName(voice.language || 'auto')),
        h('td', { 'data-label': t('common.gender') }, genderName(voice.gender)),
        h('td', { class: 'clips', 'data-label': t('voices.clips') }, clips.length ? clips : '—'),
        h('td', {}, remove, line));
    });
    const heads = [t('voices.name'), t('voices.kind'), t('common.language'), t('common.gender'), t('voices.clips'),
      t('voices.actions')];
    list.replaceChildren(voices.length === 0 ? h('p', {}, t('voices.none'))
      : stackTable(heads, rows, t('voices.library', { n: voices.length })));
  }

  const clone = cloneForm(load);
  root.append(h('section', { class: 'card', 'aria-labelledby': 'voices-list' },
    h('h3', { id: 'voices-list' }, t('voices.listTitle')), listError, list, player), clone.form);
  load();
  return clone.leave;
}

// The clone form: files and recordings gathered as clips, each with what it
// says; `leave` turns off a microphone still recording when the view goes.
function cloneForm(reload) {
  const clips = [];  // {blob, name, text}
  const display = h('input', { type: 'text', required: true });
  const language = select(languageOptions(), 'auto');
  const gender = select(genderOptions(), 'default');
  const style = h('input', { type: 'text' });
  const note = h('input', { type: 'text' });
  const files = h('input', { type: 'file', multiple: true, accept: '.wav,.mp3,.ogg,audio/wav,audio/mpeg,audio/ogg' });
  const clipList = h('ol', { class: 'clip-list', 'aria-live': 'polite' });
  const record = h('button', { type: 'button' }, t('voices.record'));
  const recordState = statusLine();
  const submit = h('button', { type: 'submit', class: 'primary' }, t('voices.clone'));
  const error = errorLine();
  const outcome = h('div', { 'aria-live': 'polite' });
  let recorder = null;

  function showClips() {
    clipList.replaceChildren(...clips.map((clip, index) => {
      const text = h('input', { type: 'text', value: clip.text,
        'aria-label': t('voices.clipText', { n: index + 1, name: clip.name }) });
      text.addEventListener('input', () => { clip.text = text.value; });
      const drop = h('button', { type: 'button', class: 'small',
        'aria-label': t('voices.dropClip', { name: clip.name }) }, '✕');
      drop.addEventListener('click', () => { clips.splice(index, 1); showClips(); });
      return h('li', {}, h('span', { class: 'clip-name' }, clip.name), text, drop);
    }));
  }

  files.addEventListener('change', () => {
    for (const file of files.files) clips.push({ blob: file, name: file.name, text: '' });
    files.value = '';
    showClips();
  });

  record.addEventListener('click', async () => {
    showError(error, null);
    try {
      if (!recorder) {
        recorder = new WavRecorder();
        await recorder.start();
        record.textContent = t('voices.stop');
        record.setAttribute('aria-pressed', 'true');
        recordState.textContent = t('voices.recording');
        return;
      }
      const blob = await recorder.stop();
      recorder = null;
      record.textContent = t('voices.record');
      record.setAttribute('aria-pressed', 'false');
      recordState.textContent = '';
      clips.push({ blob, name: t('voices.recordingName', { n: clips.length + 1 }), text: '' });
      showClips();
    } catch (e) {
      recorder = null;
      record.textContent = t('voices.record');
      showError(error, new Error(`${t('voices.micFailed')} ${e.message || e}`));
    }
  });

  const form = h('form', { class: 'card', 'aria-labelledby': 'clone-title', onsubmit: (event) => {
    event.preventDefault();
    if (clips.length === 0) {
      showError(error, new Error(t('voices.noClips')));
      return;
    }
    busy(submit, error, async () => {
      const body = { display: display.value, language: language.value, gender: gender.value, style: style.value,
        note: note.value, clips: [] };
      for (const clip of clips) body.clips.push({ audio: await base64Of(clip.blob), text: clip.text });
      const voice = await sendJson('POST', '/v1/voices/clone', body);
      const warnings = voice.warnings || [];
      outcome.replaceChildren(h('p', { class: 'ok' }, t('voices.cloned1', { voice: voice.display || voice.id, id: voice.id })),
        warnings.length ? h('div', { class: 'warnings', role: 'note' }, h('strong', {}, t('voices.warnings')),
          h('ul', {}, warnings.map((w) => h('li', {}, w)))) : null);
      clips.length = 0;
      showClips();
      form.reset();
      await reload();
    });
  } },
  h('h3', { id: 'clone-title' }, t('voices.cloneTitle')),
  h('p', { class: 'hint' }, t('voices.cloneHint')),
  h('div', { class: 'row' }, field(t('voices.display'), display), field(t('common.language'), language),
    field(t('common.gender'), gender)),
  h('div', { class: 'row' }, field(t('speak.style'), style), field(t('voices.note'), note)),
  h('div', { class: 'row' }, field(t('voices.files'), files, t('voices.filesHint')),
    h('div', { class: 'field' }, h('span', { class: 'label' }, t('voices.mic')), record, recordState)),
  clipList,
  h('div', { class: 'actions' }, submit, error),
  outcome);
  return {
    form,
    leave: () => {
      if (recorder) recorder.release();
      recorder = null;
    },
  };
}
