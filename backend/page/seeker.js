// Seeks in quick succession, a held key say, become few: each may cost the server a new transcoder.

const QUIET_MS = 250;

/** The first goes at once, those that follow quickly only when they have come to rest. */
export class Seeker {
  /**
   * @param {(second: number) => void} go
   * @param {{now: () => number, setTimeout: Function, clearTimeout: Function}} [clock]
   */
  constructor(go, clock = {now: () => performance.now(), setTimeout: (f, ms) => setTimeout(f, ms),
    clearTimeout: (id) => clearTimeout(id)}) {
    this.go = go;
    this.clock = clock;
    this.last = -Infinity;
    /** @type {?number} where it is to go; null when nothing is pending */
    this.target = null;
  }

  /** @param {number} second */
  to(second) {
    const now = this.clock.now();
    this.clock.clearTimeout(this.timer);
    const quick = now - this.last < QUIET_MS;
    this.last = now;
    if (!quick) {
      this.target = null;
      this.go(second);
      return;
    }
    this.target = second;
    this.timer = this.clock.setTimeout(() => {
      this.target = null;
      this.go(second);
    }, QUIET_MS);
  }

  /** Forgets what is pending. */
  cancel() {
    this.clock.clearTimeout(this.timer);
    this.target = null;
  }
}
