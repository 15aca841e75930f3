// The picture and what lies on it: pointer and touch, the hiding of the controls, the still picture
// that bridges a change of streams.

const IDLE_MS = 3000;
const DOUBLE_MS = 300;

/** Hides the controls of a player when nobody does anything and the film runs. */
export class Idle {
  /** @param {HTMLElement} player @param {() => boolean} mayHide */
  constructor(player, mayHide) {
    this.player = player;
    this.mayHide = mayHide;
    for (const event of ['pointermove', 'keydown', 'focusin']) {
      player.addEventListener(event, () => this.wake());
    }
    player.addEventListener('pointerleave', (event) => event.pointerType === 'mouse' && this.sleep());
    this.wake();
  }

  /** @returns {boolean} whether the controls are hidden */
  get asleep() {
    return this.player.hasAttribute('data-idle');
  }

  /** Shows the controls, for a while. */
  wake() {
    this.player.removeAttribute('data-idle');
    clearTimeout(this.timer);
    this.timer = setTimeout(() => this.sleep(), IDLE_MS);
  }

  /** Hides them, if that may be. */
  sleep() {
    clearTimeout(this.timer);
    const {player} = this;
    const focused = player.querySelector('.controls :focus-visible, .menu:not([hidden])');
    if (this.mayHide() && !focused) player.setAttribute('data-idle', '');
    else this.timer = setTimeout(() => this.sleep(), IDLE_MS);
  }

  destroy() {
    clearTimeout(this.timer);
  }
}

/**
 * Clicks and taps on the picture. A mouse plays and pauses, twice is full screen; a finger shows the
 * controls, twice at a side skips.
 * @param {HTMLElement} area
 * @param {{toggle: () => void, fullscreen: () => void, skip: (by: number) => void, idle: Idle}} does
 */
export function watchPointer(area, {toggle, fullscreen, skip, idle}) {
  let lastTap = 0;
  let wasAsleep = false;
  let touch = false;
  area.addEventListener('pointerdown', (event) => {
    wasAsleep = idle.asleep;
    touch = event.pointerType === 'touch';
  }, {capture: true});
  area.addEventListener('click', (event) => {
    if (!touch) {
      toggle();
      return;
    }
    const double = event.timeStamp - lastTap < DOUBLE_MS;
    lastTap = event.timeStamp;
    const {left, width} = area.getBoundingClientRect();
    const share = (event.clientX - left) / width;
    if (double && share < 0.35) skip(-10);
    else if (double && share > 0.65) skip(10);
    else if (wasAsleep) idle.wake();
    else idle.sleep();
  });
  area.addEventListener('dblclick', () => !touch && fullscreen());
}

/** The last picture of a stream that goes, until the first of the next. */
export class Still {
  /** @param {HTMLVideoElement} video @param {HTMLCanvasElement} canvas */
  constructor(video, canvas) {
    this.video = video;
    this.canvas = canvas;
  }

  /** Keeps what is shown now. */
  take() {
    const {video, canvas} = this;
    if (video.readyState < 2 || !video.videoWidth) return;
    canvas.width = video.videoWidth;
    canvas.height = video.videoHeight;
    canvas.getContext('2d').drawImage(video, 0, 0);
    canvas.hidden = false;
    const drop = () => this.drop();
    if (video.requestVideoFrameCallback) {
      // What is presented before the source changes is not the next stream's.
      video.addEventListener('loadeddata', () => video.requestVideoFrameCallback(drop), {once: true});
    }
    video.addEventListener('playing', drop, {once: true});
  }

  drop() {
    this.canvas.hidden = true;
  }
}
