// The page: which of its two views is shown.
import {closeStream} from './api.js';
import {element} from './dom.js';
import {loadHls} from './engines/hls.js';
import {hasMediaSource} from './engines/choose.js';
import {Library} from './library.js';
import {Notice} from './notice.js';
import {Player} from './player.js';
import {dropEarly, takeEarly, warmUp} from './prepare.js';
import {ResumeStore, browserStorage} from './resume.js';
import {parseRoute} from './router.js';
import {Settings} from './settings.js';
import {explain} from './words.js';

const NAME = 'tarnvte';
const SAY_MS = 2500;

const storage = browserStorage();
const resume = new ResumeStore(storage);
const settings = new Settings(storage);
const root = document.getElementById('page');
const live = document.getElementById('live');
const toast = document.getElementById('toast');
const library = new Library({resume, settings});
let player = null;
let turn = 0;
let clicked = 0;
let scroll = 0;
let sayTimer = 0;

function say(sentence) {
  live.textContent = sentence;
  toast.textContent = sentence;
  toast.hidden = false;
  // In full screen only what lies inside is seen.
  (document.fullscreenElement ?? document.body).append(toast);
  clearTimeout(sayTimer);
  sayTimer = setTimeout(() => {
    toast.hidden = true;
  }, SAY_MS);
}

function leave() {
  location.hash = '#/';
}

function closePlayer() {
  player?.close();
  player = null;
}

function showLibrary() {
  closePlayer();
  dropEarly();
  document.title = NAME;
  document.documentElement.classList.remove('watching');
  root.replaceChildren(library.node);
  library.open();
  window.scrollTo(0, scroll);
}

function showTrouble(error, again) {
  const notice = new Notice({play() {}, retry: again, leave});
  notice.update({failure: {...explain(error), seconds: 0}, waiting: false, blocked: false});
  root.replaceChildren(element('section', {class: 'player', 'aria-label': 'Player'}, notice.node));
}

async function showPlayer(id) {
  const own = ++turn;
  const when = performance.now() - clicked < 5000 && clicked > 0 ? clicked : performance.now();
  clicked = 0;
  if (!player) {
    scroll = window.scrollY;
    library.close();
  }
  closePlayer();
  const prepared = takeEarly(id);
  document.documentElement.classList.add('watching');
  root.replaceChildren(element('section', {class: 'player', 'aria-label': 'Player'},
    element('div', {class: 'notice'}, element('div', {class: 'spinner'}))));
  try {
    const {film, can} = await warmUp(id);
    if (own !== turn) {
      abandon(prepared);
      return;
    }
    document.title = `${film.title} – ${NAME}`;
    player = new Player(film, can, {settings, resume, say, leave});
    root.replaceChildren(player.node);
    player.open({clicked: when, prepared});
  } catch (error) {
    if (own === turn) showTrouble(error, () => showPlayer(id));
    abandon(prepared);
  }
}

function abandon(prepared) {
  prepared?.then(({id}) => closeStream(id), () => {});
}

function route() {
  const where = parseRoute(location.hash);
  if (where.view === 'watch') {
    showPlayer(where.id);
  } else {
    ++turn;
    showLibrary();
  }
}

// The moment from which the viewer waits.
document.addEventListener('click', (event) => {
  if (event.target.closest?.('a[data-video]')) clicked = event.timeStamp;
}, {capture: true});

window.addEventListener('pagehide', dropEarly);
window.addEventListener('hashchange', route);

// For tests and measurements: what was measured and what plays.
Object.defineProperty(window, 'tarnvte', {value: {
  get firstPictureMs() { return player?.measure.firstPictureMs ?? null; },
  get lastSeekMs() { return player?.measure.lastSeekMs ?? null; },
  get stream() { return player?.session.stream ?? null; },
  get status() { return player?.session.status ?? null; },
  get state() { return player?.session.state ?? 'library'; },
  get video() { return player?.video ?? null; },
  get film() { return player?.film ?? null; },
  get time() { return player?.session.time() ?? null; },
  get duration() { return player?.session.duration ?? null; },
  filmTime(mediaTime) { return player?.session.engine?.filmTime(mediaTime) ?? mediaTime; },
  seek(second) { player?.goTo(second); },
  change(changes) { return player?.change(changes); },
}});

// The token that opened the page is in a cookie by now, and does not belong into histories.
if (new URLSearchParams(location.search).has('token')) {
  history.replaceState(null, '', location.pathname + location.hash);
}
route();
// Most streams are played by it; once the page stands there is time to fetch it.
const early = () => hasMediaSource() && loadHls().catch(() => {});
if ('requestIdleCallback' in window) requestIdleCallback(early, {timeout: 1000});
else setTimeout(early, 200);
