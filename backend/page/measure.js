// How long the viewer waited: from the click to the first picture, from a seek to its picture.

// A seek may land on a frame a little before its target, and is noticed some frames later.
const BEFORE = 0.5;
const BEHIND = 3;

/**
 * Whether a presented frame is the answer to a seek. Pure.
 * @param {number} shown the frame's second in the film
 * @param {number} target seconds
 * @returns {boolean}
 */
export function answersSeek(shown, target) {
  return shown >= target - BEFORE && shown <= target + BEHIND;
}

/** Watches the presented frames of one element. */
export class Measure {
  /**
   * @param {HTMLVideoElement} video
   * @param {(mediaTime: number) => number} filmTime a frame's second in the film
   */
  constructor(video, filmTime) {
    this.video = video;
    this.filmTime = filmTime;
    /** Milliseconds; null until there is a figure. */
    this.firstPictureMs = null;
    this.lastSeekMs = null;
    this.waits = {start: null, seek: null};
  }

  /** @param {number} when ms on performance.now()'s clock: the click */
  started(when) {
    this.firstPictureMs = null;
    this.waits.start = {when};
    this.watch();
  }

  /** @param {number} target second of the film */
  sought(target) {
    this.waits.seek = {when: performance.now(), target};
    this.watch();
  }

  watch() {
    if (this.watching) return;
    this.watching = true;
    const again = (now, mediaTime) => {
      this.watching = false;
      this.presented(now, mediaTime);
      if (this.waits.start || this.waits.seek) this.watch();
    };
    if (this.video.requestVideoFrameCallback) {
      this.video.requestVideoFrameCallback((now, frame) => again(now, frame.mediaTime));
    } else {
      this.video.addEventListener('timeupdate',
        () => again(performance.now(), this.video.currentTime), {once: true});
    }
  }

  presented(now, mediaTime) {
    const {start, seek} = this.waits;
    if (start) {
      this.firstPictureMs = Math.round(now - start.when);
      this.waits.start = null;
    }
    if (seek && now >= seek.when && !this.video.seeking &&
        answersSeek(this.filmTime(mediaTime), seek.target)) {
      this.lastSeekMs = Math.round(now - seek.when);
      this.waits.seek = null;
    }
  }
}
