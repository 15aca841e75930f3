// The server and a browser, for the tests of the page. Environment: TARNVTE is the command, FILMS the
// folder that it serves.
import assert from 'node:assert/strict';
import {spawn} from 'node:child_process';
import {once} from 'node:events';
import readline from 'node:readline';
import {chromium} from 'playwright-core';

// A machine may be slow; nothing here fails sooner.
export const PATIENCE = Number(process.env.PATIENCE_MS ?? 240000);

const FLAGS = [
  '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-sync',
  '--disable-background-networking', '--disable-component-update', '--disable-dev-shm-usage',
];

/** A running server. */
export class Server {
  /** @param {string[]} [more] options of the command @param {string} [folder] */
  static async start(more = [], folder = process.env.FILMS) {
    const server = new Server();
    server.process = spawn(process.env.TARNVTE, ['serve', '--listen', '127.0.0.1:0', ...more, folder],
      {stdio: ['ignore', 'pipe', 'pipe']});
    server.log = '';
    server.process.stderr.on('data', (data) => {
      server.log += data;
    });
    server.process.on('exit', (status, signal) => {
      server.log += `\nthe server ended: ${signal ?? status}\n`;
    });
    const lines = readline.createInterface({input: server.process.stdout});
    const [first] = await Promise.race([once(lines, 'line'),
      once(server.process, 'exit').then(() => Promise.reject(new Error(`no server: ${server.log}`)))]);
    server.address = first.replace(/\/$/, '');
    return server;
  }

  /** @param {string} path below /api/v1 @returns {Promise<object>} */
  async get(path) {
    try {
      const response = await fetch(`${this.address}/api/v1${path}`);
      return await response.json();
    } catch (error) {
      throw new Error(`${path}: ${error}\n${this.log}`);
    }
  }

  /** Waits until every file was looked at. @returns {Promise<object[]>} the videos */
  async videos() {
    const library = await until(() => this.get('/videos'), ({scanning, videos}) => !scanning && videos.length > 0 &&
      videos.every(({duration, error}) => duration !== undefined || error !== undefined));
    return library.videos;
  }

  /** @param {string} title @returns {Promise<number>} its number */
  async video(title) {
    const found = (await this.videos()).find((video) => video.title === title);
    assert.ok(found, `no video is called ${title}`);
    return found.id;
  }

  /** Waits until no transcoder runs. */
  async idle() {
    await until(() => this.get('/registry'), ({transcoders}) => transcoders.length === 0);
  }

  async stop() {
    const {process: served} = this;
    if (served.exitCode !== null || served.signalCode !== null) return;
    served.kill('SIGTERM');
    await once(served, 'exit');
  }
}

/**
 * Asks again and again until the answer is good.
 * @param {() => Promise<*>} ask @param {(answer: *) => boolean} good @returns {Promise<*>}
 */
export async function until(ask, good) {
  const end = Date.now() + PATIENCE;
  for (;;) {
    const answer = await ask();
    if (good(answer)) return answer;
    assert.ok(Date.now() < end, `still ${JSON.stringify(answer)}`);
    await new Promise((resolve) => setTimeout(resolve, 100));
  }
}

/** @param {string[]} [more] flags @returns {Promise<import('playwright-core').Browser>} */
export function launch(more = []) {
  return chromium.launch({executablePath: '/usr/bin/chromium', args: [...FLAGS, ...more]});
}

/** A page of the browser, with what went wrong in it. */
export class View {
  /**
   * @param {import('playwright-core').Browser|import('playwright-core').BrowserContext} browser
   * @param {Server} server @param {object} [options] of the context
   */
  static async open(browser, server, options = {viewport: {width: 1280, height: 800}}) {
    const view = new View();
    view.server = server;
    view.context = browser.newContext ? await browser.newContext(options) : browser;
    view.page = await view.context.newPage();
    view.page.setDefaultTimeout(PATIENCE);
    view.errors = [];
    view.page.on('pageerror', (error) => view.errors.push(String(error)));
    // A refused request is the server's word, not a fault of the page.
    view.page.on('console', (message) => {
      if (message.type() === 'error' && !/Failed to load resource/.test(message.text())) view.errors.push(message.text());
    });
    await view.page.addInitScript(recordFrames);
    return view;
  }

  /** @param {string} [hash] */
  async go(hash = '#/') {
    await this.page.goto(`${this.server.address}/${hash}`);
  }

  /** Opens a video as people do: by its card. @param {string} title */
  async choose(title) {
    await this.go();
    await this.page.click(`a.card:has-text("${title}")`);
  }

  /** @param {Function} condition in the page @param {*} [argument] */
  async wait(condition, argument) {
    try {
      await this.page.waitForFunction(condition, argument, {timeout: PATIENCE, polling: 50});
    } catch (error) {
      throw new Error(`${error.message}\n${JSON.stringify(await this.state())}\n${this.errors.join('\n')}\n${this.server.log}`);
    }
  }

  /** What plays, and how far. @returns {Promise<object>} */
  state() {
    return this.page.evaluate(() => {
      const {video} = tarnvte;
      return {
        state: tarnvte.state, kind: tarnvte.stream?.kind, profile: tarnvte.stream?.profile, time: tarnvte.time,
        paused: video?.paused, audio: video?.webkitAudioDecodedByteCount, frames: film.frames.length,
        last: film.frames.at(-1), text: document.querySelector('.failure:not([hidden])')?.textContent,
      };
    });
  }

  /** Waits until picture and sound go on, for a second at least. */
  async playing() {
    await this.wait(() => tarnvte.state === 'open' && tarnvte.video?.readyState >= 2 && !tarnvte.video.seeking);
    const before = await this.page.evaluate(() => {
      film.mark = {time: tarnvte.time, audio: tarnvte.video.webkitAudioDecodedByteCount, frames: film.frames.length};
      return film.mark;
    });
    await this.wait(() => tarnvte.time > film.mark.time + 1 && film.frames.length > film.mark.frames + 5 &&
      tarnvte.video.webkitAudioDecodedByteCount > film.mark.audio);
    return before;
  }

  /** Plays or pauses. @param {boolean} play */
  async run(play) {
    if (await this.page.evaluate(() => tarnvte.video.paused) === play) await this.page.keyboard.press('k');
    await this.wait((wanted) => tarnvte.video.paused !== wanted, play);
  }

  /** Chooses from a menu. @param {string} button its label's beginning @param {...string} items */
  async pick(button, ...items) {
    // By keyboard: controls that have the focus stay.
    await this.page.focus(`button[aria-label^="${button}"]`);
    await this.page.keyboard.press('Enter');
    for (const item of items) await this.page.click(`.menu:not([hidden]) .menu-item:has-text("${item}")`);
  }

  /** The picture that is shown is that of the time that is shown. */
  async inTime() {
    const {shown, from, to} = await this.page.evaluate(() => film.frames.at(-1));
    assert.ok(shown + 0.25 > from - 0.5 && shown < to + 0.5, `the picture of ${shown} at ${from} to ${to}`);
  }

  async close() {
    assert.deepEqual(this.errors, []);
    await this.context.close();
  }
}

// Runs in the page: notes every presented frame with the quarter of a second that its picture says.
function recordFrames() {
  const canvas = document.createElement('canvas');
  canvas.width = 160;
  canvas.height = 90;
  const pixels = canvas.getContext('2d', {willReadFrequently: true});
  window.film = {frames: []};
  const read = (video) => {
    pixels.drawImage(video, 0, 0, 160, 90);
    let quarters = 0;
    for (let digit = 0; digit < 10; ++digit) {
      if (pixels.getImageData(digit * 16 + 8, 15, 1, 1).data[1] > 128) quarters += 1 << digit;
    }
    return quarters / 4;
  };
  // Where the page is late the picture is one between the frame that it is told of and the clock.
  const watch = (video) => video.requestVideoFrameCallback((_, {mediaTime}) => {
    const from = window.tarnvte.filmTime(mediaTime);
    window.film.frames.push({shown: read(video), from, to: window.tarnvte.time});
    watch(video);
  });
  new MutationObserver(() => {
    const video = document.querySelector('video');
    if (video && video !== window.film.video) {
      window.film.video = video;
      watch(video);
    }
  }).observe(document, {childList: true, subtree: true});
}

/** Numbers from 0 to 1, the same for a seed. @param {number} seed @returns {() => number} */
export function random(seed) {
  let state = seed;
  return () => {
    state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
    return state / 2 ** 32;
  };
}
