// The console's shell: navigation between the views (one module each, chosen
// by the URL's #fragment), the language switch and the API-key dialog.
import { getJson, hasKey, forgetKey, setKeyPrompt } from './api.js';
import { h } from './dom.js';
import { initLanguage, language, languages, setLanguage, t } from './i18n.js';
import * as speak from './views/speak.js';
import * as voices from './views/voices.js';
import * as bindings from './views/bindings.js';
import * as prebake from './views/prebake.js';
import * as status from './views/status.js';
import * as packs from './views/packs.js';

const views = [speak, voices, bindings, prebake, status, packs];
const main = document.getElementById('view');
const nav = document.getElementById('nav');
const picker = document.getElementById('language');
const forget = document.getElementById('forget-key');
let leave = null;

function currentView() {
  const wanted = location.hash.slice(1);
  return views.find((v) => v.id === wanted) || speak;
}

function applyShellTexts() {
  for (const el of document.querySelectorAll('[data-text]')) el.textContent = t(el.dataset.text);
  for (const el of document.querySelectorAll('[data-label]')) el.setAttribute('aria-label', t(el.dataset.label));
  picker.value = language();
}

function show() {
  if (leave) leave();
  leave = null;
  const view = currentView();
  nav.replaceChildren(...views.map((v) => h('a', { href: `#${v.id}`, 'aria-current': v === view ? 'page' : null },
    t(`nav.${v.id}`))));
  document.title = `${t(`nav.${view.id}`)} · ${t('app.title')}`;
  const title = h('h2', {}, t(`nav.${view.id}`));
  const body = h('div', { class: `view view-${view.id}` });
  main.replaceChildren(title, body);
  main.dataset.view = view.id;
  leave = view.render(body) || null;
  forget.hidden = !hasKey();
}

// One dialog for every request the service refused for want of a key.
function askForKey(reason) {
  const dialog = document.getElementById('key-dialog');
  const form = document.getElementById('key-form');
  const input = document.getElementById('key-input');
  document.getElementById('key-reason').textContent = t(reason === 'refused' ? 'key.refused' : 'key.needed');
  input.value = '';
  return new Promise((resolve) => {
    const done = (key) => {
      form.removeEventListener('submit', submit);
      dialog.removeEventListener('cancel', cancel);
      document.getElementById('key-cancel').removeEventListener('click', cancel);
      dialog.close();
      // A cancelled question leaves the key that was refused in place.
      forget.hidden = !key && !hasKey();
      resolve(key);
    };
    const submit = (event) => {
      event.preventDefault();
      done(input.value.trim() || null);
    };
    const cancel = (event) => {
      event.preventDefault();
      done(null);
    };
    form.addEventListener('submit', submit);
    dialog.addEventListener('cancel', cancel);
    document.getElementById('key-cancel').addEventListener('click', cancel);
    dialog.showModal();
    input.focus();
  });
}

async function start() {
  let serviceLanguage = 'en';
  try {
    serviceLanguage = (await getJson('/v1/health')).ui_language;
  } catch {
    // The views say so themselves when the service cannot be reached.
  }
  initLanguage(serviceLanguage);
  for (const [code, name] of languages) picker.append(h('option', { value: code }, name));
  picker.addEventListener('change', () => {
    setLanguage(picker.value);
    applyShellTexts();
    show();
  });
  forget.addEventListener('click', () => {
    forgetKey();
    forget.hidden = true;
  });
  setKeyPrompt(askForKey);
  applyShellTexts();
  window.addEventListener('hashchange', () => {
    show();
    main.focus();
  });
  show();
}

start();
