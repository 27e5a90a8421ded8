// Small DOM helpers shared by the views: element building, labelled fields,
// an error line beside an action, and downloads of fetched bytes.
import { t } from './i18n.js';

let serial = 0;
const uid = (prefix) => `${prefix}-${++serial}`;

// h('button', {class: 'primary', onclick: fn}, 'text', child...). Attributes
// are set as attributes, on* as listeners; value and checked as properties,
// after the children exist (a select's value needs its options).
export function h(tag, props = {}, ...children) {
  const el = document.createElement(tag);
  const late = {};
  for (const [name, value] of Object.entries(props || {})) {
    if (value === undefined || value === null || value === false) continue;
    if (name.startsWith('on')) el.addEventListener(name.slice(2), value);
    else if (name === 'value' || name === 'checked') late[name] = value;
    else el.setAttribute(name, value === true ? '' : String(value));
  }
  for (const child of children.flat(Infinity)) {
    if (child === null || child === undefined || child === false) continue;
    el.append(child instanceof Node ? child : String(child));
  }
  Object.assign(el, late);
  return el;
}

// A label bound to its control, with an optional hint read by screen readers.
export function field(label, control, hint) {
  control.id ||= uid('f');
  const box = h('div', { class: 'field' }, h('label', { for: control.id }, label), control);
  if (hint) {
    const hintId = uid('hint');
    control.setAttribute('aria-describedby', hintId);
    box.append(h('small', { id: hintId, class: 'hint' }, hint));
  }
  return box;
}

export function select(options, value, props = {}) {
  return h('select', { ...props, value },
    options.map(([v, label]) => h('option', { value: v }, label)));
}

// The error line that sits beside an action: hidden until something fails.
export function errorLine() {
  return h('p', { class: 'error', role: 'alert', hidden: true });
}

export function showError(line, error) {
  line.hidden = !error;
  line.textContent = error ? describe(error) : '';
}

// What went wrong, in words: the service's own message, with a plain
// sentence first when the key lacks the scope.
function describe(error) {
  if (error && error.status === 403) return `${t('err.scope')} ${error.message}`;
  return (error && error.message) || String(error);
}

// A table of `rows` under one header row of column names; on a narrow screen
// each row stacks into a card whose cells show their data-label.
export function stackTable(heads, rows, caption) {
  return h('table', { class: 'stack' }, caption ? h('caption', {}, caption) : null,
    h('thead', {}, h('tr', {}, heads.map((name) => h('th', { scope: 'col' }, name)))), h('tbody', {}, rows));
}

export function statusLine() {
  return h('p', { class: 'status', role: 'status' });
}

// Runs `step` now and again `ms` after each run settles, until the returned
// stop() is called or `step` resolves to false. A run still in flight when
// stop() is called is the last one: a view left mid-request polls no more.
export function poll(step, ms) {
  let stopped = false;
  let timer = null;
  const tick = async () => {
    const more = await step();
    if (!stopped && more !== false) timer = setTimeout(tick, ms);
  };
  tick();
  return () => {
    stopped = true;
    clearTimeout(timer);
  };
}

// Runs `work` with `button` disabled, showing a failure in `line`.
export async function busy(button, line, work) {
  button.disabled = true;
  showError(line, null);
  try {
    return await work();
  } catch (error) {
    showError(line, error);
    return undefined;
  } finally {
    button.disabled = false;
  }
}

export function fileName(response, fallback) {
  const match = /filename="?([^";]+)"?/.exec(response.headers.get('Content-Disposition') || '');
  return match ? match[1] : fallback;
}

export function humanBytes(bytes) {
  if (bytes < 1024) return `${bytes} B`;
  if (bytes < 1024 * 1024) return `${(bytes / 1024).toFixed(0)} KB`;
  if (bytes < 1024 * 1024 * 1024) return `${(bytes / 1024 / 1024).toFixed(1)} MB`;
  return `${(bytes / 1024 / 1024 / 1024).toFixed(2)} GB`;
}

// A blob: URL for `blob`, the one it replaces (if any) given up first, so
// replaying or re-downloading does not keep every earlier blob alive.
export function replaceUrl(old, blob) {
  if (old) URL.revokeObjectURL(old);
  return URL.createObjectURL(blob);
}

// Reads a File as base64 without the data: prefix.
export function base64Of(blob) {
  return new Promise((resolve, reject) => {
    const reader = new FileReader();
    reader.onload = () => resolve(String(reader.result).split(',', 2)[1] || '');
    reader.onerror = () => reject(reader.error);
    reader.readAsDataURL(blob);
  });
}
