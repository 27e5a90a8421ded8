// Pre-bake: a list of lines handed to POST /v1/prewarm, then watched through
// /v1/stats (prewarm_pending, prewarm_failed, prewarm_failures) until done or
// cancelled with DELETE /v1/prewarm.
import { getJson, sendJson } from '../api.js';
import { busy, errorLine, field, h, poll, select, showError, statusLine } from '../dom.js';
import { t } from '../i18n.js';
import { genderOptions, languageOptions } from './choices.js';

export const id = 'prebake';

const pollMs = 1000;

export function render(root) {
  const lines = h('textarea', { rows: 8, spellcheck: 'false' });
  const file = h('input', { type: 'file', accept: '.txt,text/plain' });
  const airline = h('input', { type: 'text', maxlength: 3, class: 'code', autocomplete: 'off' });
  const language = select(languageOptions(), 'auto');
  const gender = select(genderOptions(), 'default');
  const start = h('button', { type: 'submit', class: 'primary' }, t('bake.start'));
  const cancel = h('button', { type: 'button', class: 'danger', disabled: true }, t('bake.cancel'));
  const error = errorLine();
  const bar = h('progress', { max: 1, value: 0, 'aria-label': t('bake.progress') });
  const percent = h('span', { class: 'percent' }, '');
  const numbers = statusLine();
  const failures = h('div', { 'aria-live': 'polite' });
  const progress = h('section', { class: 'card', hidden: true, 'aria-labelledby': 'bake-progress' },
    h('h3', { id: 'bake-progress' }, t('bake.progress')), h('div', { class: 'bar' }, bar, percent), numbers, failures);
  let stopPolling = () => {};
  let run = null;
  let left = false;

  file.addEventListener('change', async () => {
    if (file.files[0]) lines.value = await file.files[0].text();
  });

  function stopWatching() {
    stopPolling();
    stopPolling = () => {};
    cancel.disabled = true;
  }

  function startWatching(started) {
    stopWatching();
    run = started;
    progress.hidden = false;
    cancel.disabled = false;
    stopPolling = poll(watch, pollMs);
  }

  // One look at the run's progress; false once there is nothing more to watch.
  async function watch() {
    let stats;
    try {
      stats = await getJson('/v1/stats');
    } catch (e) {
      showError(error, e);
      cancel.disabled = true;
      return false;
    }
    const pending = Math.min(stats.prewarm_pending, run.queued);
    const done = run.cached + run.queued - pending;
    const total = run.cached + run.queued;
    bar.max = Math.max(total, 1);
    bar.value = done;
    percent.textContent = `${Math.floor((100 * done) / Math.max(total, 1))} %`;
    const minutes = (performance.now() - run.started) / 60000;
    const rate = minutes > 0 ? (done - run.cached) / minutes : 0;
    const left = rate > 0 ? Math.ceil((pending / rate) * 60) : null;
    numbers.textContent = [t('bake.done', { done, total }), t('bake.rate', { rate: rate.toFixed(0) }),
      pending === 0 ? t('bake.finished') : t('bake.left', { left: left === null ? '…' : formatSeconds(left) })]
      .join(' · ');
    const newFailures = stats.prewarm_failed - run.failedBefore;
    const shown = newFailures > 0 ? stats.prewarm_failures.slice(-newFailures) : [];
    failures.replaceChildren(shown.length ? h('div', { class: 'warnings' }, h('strong', {}, t('bake.failures', { n: newFailures })),
      h('ul', {}, shown.map((f) => h('li', {}, h('q', {}, f.text), ' — ', f.reason)))) : '');
    if (pending === 0) cancel.disabled = true;
    return pending > 0;
  }

  const form = h('form', { class: 'card', onsubmit: (event) => {
    event.preventDefault();
    busy(start, error, async () => {
      const texts = lines.value.split(/\r?\n/).map((x) => x.trim()).filter(Boolean);
      if (texts.length === 0) throw new Error(t('bake.empty'));
      stopWatching();
      const before = await getJson('/v1/stats');
      const answer = await sendJson('POST', '/v1/prewarm', { items: texts.map((text) => ({ text })),
        airline: airline.value.trim(), language: language.value, gender: gender.value });
      if (!left) {
        startWatching({ queued: answer.queued, cached: answer.cached, failedBefore: before.prewarm_failed,
          started: performance.now() });
      }
    });
  } },
  field(t('bake.lines'), lines, t('bake.linesHint')),
  h('div', { class: 'row' }, field(t('bake.file'), file), field(t('common.airline'), airline, t('common.airlineHint')),
    field(t('common.language'), language), field(t('common.gender'), gender)),
  h('div', { class: 'actions' }, start, cancel, error));

  // busy() enables the button again afterwards; only a cancel that went through leaves it off.
  cancel.addEventListener('click', () => busy(cancel, error, async () => {
    const answer = await sendJson('DELETE', '/v1/prewarm');
    stopPolling();
    numbers.textContent = t('bake.cancelled', { n: answer.dropped });
    return true;
  }).then((cancelled) => { if (cancelled) stopWatching(); }));

  root.append(h('p', { class: 'lead' }, t('bake.lead')), form, progress);
  // A pre-bake started earlier (here, from the command line or by a client)
  // is still running: follow what is left of it.
  getJson('/v1/stats').then((stats) => {
    if (left || stats.prewarm_pending === 0 || run) return;
    startWatching({ queued: stats.prewarm_pending, cached: 0, failedBefore: stats.prewarm_failed,
      started: performance.now() });
  }).catch((e) => showError(error, e));
  return () => {
    left = true;
    stopWatching();
  };
}

function formatSeconds(seconds) {
  const m = Math.floor(seconds / 60);
  const s = seconds % 60;
  return m > 0 ? `${m} min ${s} s` : `${s} s`;
}
