// Where one left off, per video, in the browser's own store.

const PREFIX = 'tarnvte.resume.';
const MOST = 200;

/**
 * Whether a position is worth coming back to: not at the very beginning, and not within the
 * credits. Pure.
 * @param {number} at seconds
 * @param {number} duration seconds
 * @returns {boolean}
 */
export function isWorthKeeping(at, duration) {
  if (!Number.isFinite(at) || !Number.isFinite(duration) || at < 5) return false;
  return duration - at > Math.min(30, duration * 0.05);
}

/**
 * What share of a film was seen, for the bar on its card. Pure.
 * @param {{at: number, duration: number}} entry
 * @returns {number} 0 to 1
 */
export function shareSeen(entry) {
  return entry.duration > 0 ? Math.min(1, Math.max(0, entry.at / entry.duration)) : 0;
}

/**
 * An entry as the store holds it, or null where the text is none. Pure.
 * @param {?string} text
 * @returns {?{at: number, duration: number, when: number}}
 */
export function parseEntry(text) {
  try {
    const {at, duration, when} = JSON.parse(text);
    return isWorthKeeping(at, duration) && Number.isFinite(when) ? {at, duration, when} : null;
  } catch {
    return null;
  }
}

/** Positions, kept in a Storage. A store that refuses (private windows, quota) keeps nothing. */
export class ResumeStore {
  /** @param {?Storage} storage */
  constructor(storage) {
    this.storage = storage;
  }

  /**
   * Where to begin.
   * @param {number} id the video
   * @returns {number} seconds, 0 where nothing was kept
   */
  position(id) {
    return this.entry(id)?.at ?? 0;
  }

  /** @param {number} id @returns {?{at: number, duration: number, when: number}} */
  entry(id) {
    return parseEntry(this.storage?.getItem(PREFIX + id) ?? null);
  }

  /**
   * Keeps a position, or forgets the video where it is not worth keeping.
   * @param {number} id @param {number} at seconds @param {number} duration seconds
   * @param {number} [when] ms since 1970
   */
  keep(id, at, duration, when = Date.now()) {
    if (!isWorthKeeping(at, duration)) {
      this.forget(id);
      return;
    }
    try {
      this.storage?.setItem(PREFIX + id, JSON.stringify({at, duration, when}));
      for (const old of this.begun().slice(MOST)) this.forget(old.id);
    } catch {
      // Full or forbidden: the film simply begins anew next time.
    }
  }

  /** @param {number} id */
  forget(id) {
    this.storage?.removeItem(PREFIX + id);
  }

  /**
   * What was begun, the latest first.
   * @returns {Array<{id: number, at: number, duration: number, when: number}>}
   */
  begun() {
    const found = [];
    for (let i = 0; i < (this.storage?.length ?? 0); ++i) {
      const key = this.storage.key(i);
      if (!key.startsWith(PREFIX)) continue;
      const id = Number(key.slice(PREFIX.length));
      const entry = this.entry(id);
      if (entry && Number.isInteger(id)) found.push({id, ...entry});
    }
    return found.sort((a, b) => b.when - a.when);
  }
}

/**
 * The browser's store, or null where it may not be used.
 * @returns {?Storage}
 */
export function browserStorage() {
  try {
    return window.localStorage;
  } catch {
    return null;
  }
}
