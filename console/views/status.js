// Status: the engine, GPU, queue, counters and timings from /v1/health and
// /v1/stats, refreshed every few seconds, and a live tail of /v1/log.
import { getJson } from '../api.js';
import { errorLine, field, h, humanBytes, poll, select, showError } from '../dom.js';
import { t } from '../i18n.js';

export const id = 'status';

const refreshMs = 3000;

export function render(root) {
  const facts = h('dl', { class: 'facts wide' });
  const error = errorLine();
  const level = select([['', t('status.allLevels')], ['INFO', 'INFO'], ['WARN', 'WARN'], ['ERROR', 'ERROR'],
    ['DEBUG', 'DEBUG']], '');
  const log = h('pre', { class: 'log', tabindex: 0, 'aria-label': t('status.log'), 'aria-live': 'off' });
  const logError = errorLine();
  let lines = [];

  function showLog() {
    const wanted = level.value;
    log.textContent = lines.filter((l) => !wanted || l.level === wanted).map((l) => l.line).join('\n');
    log.scrollTop = log.scrollHeight;
  }
  level.addEventListener('change', showLog);

  async function refresh() {
    try {
      const [health, stats] = await Promise.all([getJson('/v1/health'), getJson('/v1/stats')]);
      showError(error, null);
      const state = health.engine_ready ? t('status.ready') : t('status.notReady');
      facts.replaceChildren(...[
        [t('status.engine'), `${health.engine} — ${state}${health.placeholder ? ` (${t('status.placeholder')})` : ''}`, 'engine'],
        [t('status.detail'), health.engine_detail || '—'],
        [t('status.gpu'), `${stats.gpu || '—'} · ${t('status.compute')} ${health.compute}`],
        [t('status.version'), health.version],
        [t('status.queue'), String(stats.queue_depth)],
        [t('status.requests'), t('status.requestsValue', { total: stats.total, failed: stats.failed })],
        [t('status.cacheHits'), `${stats.cache_hits} (${(stats.cache_hit_rate * 100).toFixed(0)} %)`],
        [t('status.cache'), t('status.cacheValue', { n: stats.cache_count, size: humanBytes(stats.cache_bytes) })],
        [t('status.latency'), `p50 ${stats.p50_ms} ms · p95 ${stats.p95_ms} ms`],
        [t('status.rtf'), stats.rtf.toFixed(2)],
        [t('status.prebake'), t('status.prebakeValue', { pending: stats.prewarm_pending, failed: stats.prewarm_failed })],
      ].flatMap(([k, v, name]) => [h('dt', {}, k), h('dd', { 'data-fact': name || null }, v)]));
    } catch (e) {
      showError(error, e);
    }
    try {
      ({ lines } = await getJson('/v1/log?lines=200'));
      showError(logError, null);
      showLog();
    } catch (e) {
      showError(logError, e);
    }
  }

  root.append(
    h('section', { class: 'card', 'aria-labelledby': 'status-service' }, h('h3', { id: 'status-service' }, t('status.service')),
      error, facts),
    h('section', { class: 'card', 'aria-labelledby': 'status-log' }, h('h3', { id: 'status-log' }, t('status.log')),
      h('div', { class: 'row' }, field(t('status.level'), level)), logError, log));
  return poll(refresh, refreshMs);
}
