// What the page's files promise each other, and the policy that the server sends with them.
import assert from 'node:assert/strict';
import {readFileSync, readdirSync} from 'node:fs';
import {test} from 'node:test';

const folder = new URL('../../../backend/page/', import.meta.url);
const read = (name) => readFileSync(new URL(name, folder), 'utf8');
const list = (name) => readdirSync(new URL(name, folder)).filter((file) => file.endsWith('.js')).map((file) => name + file);
const modules = [...list(''), ...list('engines/')].sort();
const html = read('index.html');

test('every module is loaded ahead, and copied by the build', () => {
  assert.ok(modules.length > 20);
  const preloaded = [...html.matchAll(/rel="modulepreload" href="([^"]+)"/g)].map(([, file]) => file);
  assert.deepEqual(preloaded.sort(), modules);
  const copied = new Set(read('CMakeLists.txt').split(/[\s()]+/));
  for (const file of [...modules, 'index.html', 'style.css', 'icon.svg']) assert.ok(copied.has(file), file);
});

test('modules are small', () => {
  for (const file of modules) assert.ok(read(file).split('\n').length <= 300, file);
});

test('nothing that a strict policy forbids', () => {
  assert.doesNotMatch(html, /<script(?![^>]*\bsrc=)/);
  assert.doesNotMatch(html, /<style|\sstyle=|\son[a-z]+=|javascript:|https?:/);
  for (const file of modules) {
    const text = read(file);
    assert.doesNotMatch(text, /\beval\(|new Function|innerHTML|outerHTML|insertAdjacentHTML|document\.write/, file);
    assert.doesNotMatch(text, /setAttribute\('style'/, file);
  }
});

test('every picture that is shown is in the sprite', () => {
  const drawn = new Set([...html.matchAll(/id="icon-(\w+)"/g)].map(([, name]) => name));
  const used = modules.flatMap((file) => [...read(file).matchAll(/(?:\bicon|iconButton|setIcon)\((?:\w+, )?'(\w+)'/g)].map(([, name]) => name));
  assert.ok(used.length > 10);
  for (const name of used) assert.ok(drawn.has(name), name);
});
