// The one place that talks to the service: every view calls the public /v1
// API through here. It adds the API key the user gave (kept in this browser
// session only), asks for one when the service answers 401, and turns every
// refusal into an ApiError carrying the service's own message.
import { t } from './i18n.js';

const storageKey = 'kelvo.apiKey';
let askForKey = async () => null;
let pendingAsk = null;

class ApiError extends Error {
  constructor(status, code, message) {
    super(message);
    this.status = status;
    this.code = code;
  }
}

// `ask(reason)` shows the key dialog and resolves to the key, or null when the
// user declines; reason is 'needed' or 'refused'.
export function setKeyPrompt(ask) {
  askForKey = ask;
}

export function forgetKey() {
  sessionStorage.removeItem(storageKey);
}

export function hasKey() {
  return Boolean(sessionStorage.getItem(storageKey));
}

// fetch() with the key. `json` is sent as a JSON body; `body` with `type` as is.
// Resolves to the Response of a 2xx answer; anything else throws ApiError.
export async function call(method, path, { json, body, type } = {}) {
  for (;;) {
    const key = sessionStorage.getItem(storageKey);
    const headers = {};
    if (key) headers.Authorization = `Bearer ${key}`;
    let payload = body;
    if (json !== undefined) {
      headers['Content-Type'] = 'application/json';
      payload = JSON.stringify(json);
    } else if (type) {
      headers['Content-Type'] = type;
    }
    let response;
    try {
      response = await fetch(path, { method, headers, body: payload, cache: 'no-store' });
    } catch {
      throw new ApiError(0, 'network', t('err.network'));
    }
    if (response.status === 401) {
      // A key given while this request was on its way: just try again with it.
      if (sessionStorage.getItem(storageKey) !== key) continue;
      // Requests refused together share one question.
      pendingAsk ??= askForKey(key ? 'refused' : 'needed').finally(() => { pendingAsk = null; });
      const given = await pendingAsk;
      if (given) {
        sessionStorage.setItem(storageKey, given);
        continue;
      }
    }
    if (response.ok) return response;
    let code = '';
    let message = `${response.status} ${response.statusText}`;
    try {
      const answer = await response.json();
      code = answer.error || '';
      message = answer.message || message;
    } catch {
      // Not JSON: the status line says enough.
    }
    throw new ApiError(response.status, code, message);
  }
}

export async function getJson(path) {
  return (await call('GET', path)).json();
}

export async function sendJson(method, path, json) {
  return (await call(method, path, { json })).json();
}

// The path of one voice, its id escaped segment by segment (ids may hold "/").
export function voicePath(id) {
  return `/v1/voices/${id.split('/').map(encodeURIComponent).join('/')}`;
}
