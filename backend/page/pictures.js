// Loads the pictures of the cards that come into view, a few at a time: a browser has six connections
// to a server, and whoever chooses a video must not wait for pictures.

const AT_ONCE = 3;
const AHEAD = '300px';

/** Pictures that load when they are near the screen. */
export class Pictures {
  /** @param {(images: IntersectionObserverCallback) => IntersectionObserver} [observe] for tests */
  constructor(observe = (seen) => new IntersectionObserver(seen, {rootMargin: AHEAD})) {
    this.addresses = new Map();
    this.waiting = [];
    this.loading = new Set();
    this.running = false;
    this.observer = observe((entries) => this.seen(entries));
  }

  /** @param {HTMLImageElement} image @param {string} address */
  add(image, address) {
    this.addresses.set(image, address);
    this.observer.observe(image);
  }

  seen(entries) {
    for (const {target, isIntersecting} of entries) {
      const at = this.waiting.indexOf(target);
      if (isIntersecting && at < 0 && !this.loading.has(target)) this.waiting.push(target);
      // Scrolled past before its turn came.
      else if (!isIntersecting && at >= 0) this.waiting.splice(at, 1);
    }
    this.next();
  }

  next() {
    while (this.running && this.loading.size < AT_ONCE && this.waiting.length > 0) {
      this.load(this.waiting.shift());
    }
  }

  load(image) {
    if (!this.addresses.has(image)) return;
    this.loading.add(image);
    const done = () => {
      if (!this.loading.delete(image)) return;
      this.forget(image);
      this.next();
    };
    image.addEventListener('load', done, {once: true});
    image.addEventListener('error', done, {once: true});
    image.src = this.addresses.get(image);
  }

  forget(image) {
    this.addresses.delete(image);
    this.observer.unobserve(image);
  }

  /** Loads what is in view. */
  resume() {
    this.running = true;
    this.next();
  }

  /** Stops, and frees the connections. */
  pause() {
    this.running = false;
    for (const image of this.loading) {
      image.removeAttribute('src');
      this.waiting.unshift(image);
    }
    this.loading.clear();
  }

  /** Forgets the pictures of cards that are no longer shown. */
  prune() {
    for (const image of this.addresses.keys()) {
      if (image.isConnected) continue;
      this.forget(image);
      this.loading.delete(image);
    }
    this.waiting = this.waiting.filter((image) => this.addresses.has(image));
    this.next();
  }
}
