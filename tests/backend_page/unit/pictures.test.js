import assert from 'node:assert/strict';
import {test} from 'node:test';
import {Pictures} from '../../../backend/page/pictures.js';

// An <img> as far as the queue is concerned.
class Image extends EventTarget {
  isConnected = true;
  src = '';

  removeAttribute() {
    this.src = '';
  }
}

function queue(count) {
  let seen = null;
  const observer = {observe() {}, unobserve() {}};
  const pictures = new Pictures((callback) => {
    seen = callback;
    return observer;
  });
  const images = Array.from({length: count}, () => new Image());
  images.forEach((image, i) => pictures.add(image, `/picture/${i}`));
  const show = (some, isIntersecting = true) => seen(some.map((target) => ({target, isIntersecting})));
  const started = () => images.map(({src}, i) => (src ? i : -1)).filter((i) => i >= 0);
  return {pictures, images, show, started};
}

test('a few at a time, in order, and only what is in view', () => {
  const {pictures, images, show, started} = queue(8);
  pictures.resume();
  assert.deepEqual(started(), []);
  show(images.slice(0, 6));
  assert.deepEqual(started(), [0, 1, 2]);
  images[1].dispatchEvent(new Event('load'));
  images[0].dispatchEvent(new Event('error'));
  assert.deepEqual(started(), [0, 1, 2, 3, 4]);
});

test('what is scrolled past is left out', () => {
  const {pictures, images, show, started} = queue(6);
  pictures.resume();
  show(images.slice(0, 5));
  show([images[3]], false);
  images[0].dispatchEvent(new Event('load'));
  assert.deepEqual(started(), [0, 1, 2, 4]);
});

test('a pause frees the connections, and loses nothing', () => {
  const {pictures, images, show, started} = queue(5);
  pictures.resume();
  show(images);
  pictures.pause();
  assert.deepEqual(started(), []);
  pictures.resume();
  assert.equal(started().length, 3);
  for (let i = 0; i < 5; ++i) {
    for (const image of images) if (image.src) image.dispatchEvent(new Event('load'));
  }
  assert.equal(started().length, 5);
});

test('cards that are gone load nothing', () => {
  const {pictures, images, show, started} = queue(6);
  pictures.resume();
  show(images);
  for (const image of images.slice(0, 5)) image.isConnected = false;
  pictures.prune();
  assert.deepEqual(started(), [0, 1, 2, 5]);
});
