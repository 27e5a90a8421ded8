// The option lists several views share, in the page's language.
import { t } from '../i18n.js';

export function languageOptions() {
  return [['auto', t('lang.auto')], ['zh', '中文'], ['en', 'English'], ['ja', '日本語'], ['ko', '한국어'],
    ['fr', 'Français'], ['de', 'Deutsch'], ['es', 'Español'], ['pt', 'Português'], ['ru', 'Русский'],
    ['ar', 'العربية'], ['it', 'Italiano']];
}

export function genderOptions() {
  return [['default', t('gender.default')], ['female', t('gender.female')], ['male', t('gender.male')]];
}

export function languageName(code) {
  const found = languageOptions().find(([value]) => value === code);
  return found ? found[1] : code;
}

export function genderName(code) {
  const found = genderOptions().find(([value]) => value === code);
  return found ? found[1] : code;
}

// A voice as the pickers list it: its name, then its id.
export function voiceLabel(voice) {
  return `${voice.display || voice.id} (${voice.id})`;
}
