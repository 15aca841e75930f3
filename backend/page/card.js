// A video's card in the library.
import {pictureUrl} from './api.js';
import {element} from './dom.js';
import {shareSeen} from './resume.js';
import {watchRoute} from './router.js';
import {formatTime, spokenTime} from './time.js';

const WIDTH = 320;

/**
 * What a screen reader says for a card. Pure.
 * @param {object} video @param {?{at: number, duration: number}} begun
 * @returns {string}
 */
export function cardLabel(video, begun) {
  const parts = [video.title];
  if (video.duration > 0) parts.push(spokenTime(video.duration));
  if (begun) parts.push(`seen up to ${spokenTime(begun.at)}`);
  return parts.join(', ');
}

/**
 * The card; a video that cannot be played says why instead of leading to the player.
 * @param {object} video as GET /videos lists it
 * @param {?{at: number, duration: number}} begun where one left off
 * @param {import('./pictures.js').Pictures} pictures loads its picture
 * @returns {HTMLLIElement}
 */
export function videoCard(video, begun, pictures) {
  const image = element('img', {class: 'card-picture missing', decoding: 'async', alt: '',
    width: WIDTH, height: WIDTH * 9 / 16});
  image.addEventListener('load', () => image.classList.remove('missing'));
  if (!video.error) pictures.add(image, pictureUrl(video, {width: WIDTH}));
  const bar = begun ? element('progress', {class: 'card-progress', max: 1, value: shareSeen(begun), 'aria-hidden': 'true'}) : null;
  const length = video.duration > 0 ? element('span', {class: 'card-length'}, formatTime(video.duration)) : null;
  const inside = [
    element('div', {class: 'card-frame'}, image, length, bar),
    element('span', {class: 'card-title'}, video.title),
    element('span', {class: 'card-folder'}, video.error ?? video.folder ?? ''),
  ];
  const body = video.error
    ? element('div', {class: 'card broken', role: 'group', 'aria-label': `${video.title}: cannot be played. ${video.error}`}, ...inside)
    : element('a', {class: 'card', href: watchRoute(video.id), data: {video: video.id}, 'aria-label': cardLabel(video, begun)}, ...inside);
  return element('li', {}, body);
}
