import assert from 'node:assert/strict';
import {test} from 'node:test';
import {ResumeStore, isWorthKeeping, parseEntry, shareSeen} from '../../../backend/page/resume.js';
import {Settings, parseSettings} from '../../../backend/page/settings.js';

// What a browser's Storage does.
class MemoryStorage {
  constructor() {
    this.map = new Map();
  }

  get length() {
    return this.map.size;
  }

  key(i) {
    return [...this.map.keys()][i] ?? null;
  }

  getItem(key) {
    return this.map.get(key) ?? null;
  }

  setItem(key, value) {
    this.map.set(key, String(value));
  }

  removeItem(key) {
    this.map.delete(key);
  }
}

test('what is worth coming back to', () => {
  assert.equal(isWorthKeeping(4.9, 100), false);
  assert.equal(isWorthKeeping(5, 100), true);
  assert.equal(isWorthKeeping(94.9, 100), true);
  assert.equal(isWorthKeeping(95, 100), false);
  assert.equal(isWorthKeeping(7169, 7200), true);
  assert.equal(isWorthKeeping(7171, 7200), false);
  assert.equal(isWorthKeeping(10, NaN), false);
  assert.equal(isWorthKeeping(NaN, 100), false);
});

test('a position is kept, moved and forgotten', () => {
  const store = new ResumeStore(new MemoryStorage());
  assert.equal(store.position(7), 0);
  store.keep(7, 30, 100, 1);
  assert.equal(store.position(7), 30);
  store.keep(7, 40, 100, 2);
  assert.equal(store.position(7), 40);
  store.keep(7, 99, 100, 3);
  assert.equal(store.position(7), 0);
  assert.deepEqual(store.begun(), []);
});

test('what was begun, the latest first, and no more than 200', () => {
  const storage = new MemoryStorage();
  storage.setItem('other', 'x');
  const store = new ResumeStore(storage);
  for (let id = 0; id < 210; ++id) store.keep(id, 10 + id / 10, 100, id);
  const begun = store.begun();
  assert.equal(begun.length, 200);
  assert.deepEqual(begun[0], {id: 209, at: 30.9, duration: 100, when: 209});
  assert.equal(begun.at(-1).id, 10);
  assert.equal(storage.getItem('other'), 'x');
});

test('a store that holds nonsense, refuses or is missing', () => {
  for (const text of [null, '', '{', '[]', 'null', '{"at":"10","duration":100,"when":1}',
    '{"at":10,"duration":100}', '{"at":1e999,"duration":100,"when":1}']) {
    assert.equal(parseEntry(text), null, String(text));
  }
  const full = new MemoryStorage();
  full.setItem = () => {
    throw new Error('quota');
  };
  for (const store of [new ResumeStore(full), new ResumeStore(null)]) {
    store.keep(1, 30, 100);
    assert.equal(store.position(1), 0);
    assert.deepEqual(store.begun(), []);
  }
});

test('the share seen', () => {
  assert.equal(shareSeen({at: 25, duration: 100}), 0.25);
  assert.equal(shareSeen({at: 200, duration: 100}), 1);
  assert.equal(shareSeen({at: 2, duration: 0}), 0);
});

test('settings', () => {
  const defaults = {volume: 1, muted: false, rate: 1, subtitle: '', limit: ''};
  for (const text of [null, '', '{', '7', '{"volume":"loud","muted":1}']) {
    assert.deepEqual(parseSettings(text), defaults, String(text));
  }
  assert.deepEqual(parseSettings('{"volume":7,"rate":0,"muted":true,"subtitle":"ger","other":1}'),
    {...defaults, volume: 1, rate: 0.25, muted: true, subtitle: 'ger'});
  const storage = new MemoryStorage();
  new Settings(storage).set('volume', 0.5);
  assert.equal(new Settings(storage).get('volume'), 0.5);
  const none = new Settings(null);
  none.set('muted', true);
  assert.equal(none.get('muted'), true);
});
