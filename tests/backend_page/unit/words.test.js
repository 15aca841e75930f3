import assert from 'node:assert/strict';
import {readFileSync} from 'node:fs';
import {test} from 'node:test';
import {KINDS, WORDS, audioName, explain, languageName, retrySeconds, subtitleName} from '../../../backend/page/words.js';

const reference = readFileSync(new URL('../../../docs/api.md', import.meta.url), 'utf8');

// The words of the table below "## Errors".
function documentedWords() {
  const errors = reference.split(/^## Errors$/m)[1].split(/^## /m)[0];
  return errors.split('\n').filter((line) => /^\| \d{3} \|/.test(line))
    .flatMap((line) => [...line.matchAll(/"([A-Za-z-]+)"/g)].map(([, word]) => word));
}

test('every error word of the API has its sentence', () => {
  const words = documentedWords();
  assert.ok(words.length >= 20, `only ${words.length} words were found in the table`);
  for (const word of words) {
    assert.ok(Object.hasOwn(WORDS, word), `${word} has no sentence`);
    assert.notEqual(explain({word, message: 'the server’s own'}).text, 'the server’s own');
  }
});

test('no sentence is for a word that does not exist', () => {
  const own = ['unreachable', 'not-decodable', 'stalled'];
  assert.deepEqual(Object.keys(WORDS).filter((word) => !own.includes(word)).sort(), documentedWords().sort());
});

test('a sentence is one, and says whether trying again helps', () => {
  for (const [word, {text, retry}] of Object.entries(WORDS)) {
    assert.match(text, /^[A-Z].*[.?]$/, word);
    assert.ok(['soon', 'hand', 'no'].includes(retry), word);
  }
});

test('an unknown word shows what the server says', () => {
  assert.deepEqual(explain({word: 'new-word', message: 'The disk is asleep.'}),
    {text: 'The disk is asleep.', retry: 'hand'});
  assert.equal(explain({word: 'toString', message: 'Odd.'}).text, 'Odd.');
  assert.equal(explain({}).text, 'Something went wrong.');
});

test('Retry-After', () => {
  assert.equal(retrySeconds('7'), 7);
  assert.equal(retrySeconds('0'), 1);
  assert.equal(retrySeconds('99999'), 120);
  for (const header of [null, '', 'Wed, 21 Oct 2015 07:28:00 GMT', '-3', '1.5']) {
    assert.equal(retrySeconds(header), 5, String(header));
  }
});

test('the kinds are those of the API', () => {
  const row = reference.split('\n').find((line) => line.startsWith('| `kind` | "auto"'));
  assert.deepEqual(Object.keys(KINDS).sort(), [...row.matchAll(/"(\w+)"/g)].map(([, kind]) => kind).sort());
});

test('tracks in words', () => {
  assert.equal(languageName('ger'), 'German');
  assert.equal(languageName('und'), '');
  assert.equal(languageName('not a code'), 'not a code');
  assert.equal(audioName({codec: 'aac', channels: 6, language: 'eng'}, 0), 'English, AAC 5.1');
  assert.equal(audioName({codec: 'dts', channels: 3}, 1), 'Track 2, DTS 3 channels');
  assert.equal(subtitleName({name: '', language: 'jpn'}, 0), 'Japanese');
  assert.equal(subtitleName({name: 'Signs & songs', language: 'eng'}, 0), 'Signs & songs (English)');
  assert.equal(subtitleName({name: '', language: ''}, 2), 'Subtitle 3');
});
