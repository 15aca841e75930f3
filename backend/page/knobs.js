// Volume and speed of an element, kept for the next time.

/** Both apply at once and are kept in the settings. */
export class Knobs {
  /** @param {HTMLVideoElement} video @param {import('./settings.js').Settings} settings */
  constructor(video, settings) {
    this.video = video;
    this.settings = settings;
    video.volume = settings.get('volume');
    video.muted = settings.get('muted');
    this.setRate(settings.get('rate'));
  }

  /** Sound off, or on again. */
  mute() {
    this.video.muted = !this.video.muted;
    this.settings.set('muted', this.video.muted);
  }

  /** @param {number} volume 0 to 1, what is beyond is taken for the end */
  setVolume(volume) {
    this.video.volume = Math.min(1, Math.max(0, volume));
    this.video.muted = false;
    this.settings.set('volume', this.video.volume);
    this.settings.set('muted', false);
  }

  /** @returns {number} */
  get rate() {
    return this.video.defaultPlaybackRate;
  }

  /** @param {number} rate */
  setRate(rate) {
    // The default is what a new stream in the element begins with.
    this.video.defaultPlaybackRate = rate;
    this.video.playbackRate = rate;
    this.settings.set('rate', rate);
  }
}
