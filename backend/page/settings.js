// What a viewer chose and keeps: volume, speed, subtitle language.

const KEY = 'tarnvte.settings';
const DEFAULTS = Object.freeze({volume: 1, muted: false, rate: 1, subtitle: '', limit: ''});

/**
 * Settings out of a stored text; what is missing or makes no sense is the default. Pure.
 * @param {?string} text
 * @returns {{volume: number, muted: boolean, rate: number, subtitle: string, limit: string}}
 *     `subtitle` is a language, "" for none; `limit` a height, "" for none
 */
export function parseSettings(text) {
  let stored = null;
  try {
    stored = JSON.parse(text);
  } catch {
    // As if nothing were stored.
  }
  const settings = {...DEFAULTS};
  for (const name of Object.keys(DEFAULTS)) {
    if (typeof stored?.[name] === typeof DEFAULTS[name]) settings[name] = stored[name];
  }
  settings.volume = Math.min(1, Math.max(0, settings.volume));
  settings.rate = Math.min(4, Math.max(0.25, settings.rate));
  return settings;
}

/** Settings in a Storage. */
export class Settings {
  /** @param {?Storage} storage */
  constructor(storage) {
    this.storage = storage;
    this.values = parseSettings(storage?.getItem(KEY) ?? null);
  }

  /** @param {string} name @returns {*} */
  get(name) {
    return this.values[name];
  }

  /** @param {string} name @param {*} value */
  set(name, value) {
    this.values[name] = value;
    try {
      this.storage?.setItem(KEY, JSON.stringify(this.values));
    } catch {
      // Kept until the page is left.
    }
  }
}
