// The page itself: the library, small screens, no mouse, the policy.
import assert from 'node:assert/strict';
import {after, afterEach, before, test} from 'node:test';
import {PATIENCE, Server, View, launch} from './support.js';

const LONG = {timeout: PATIENCE * 2};
const PHONE = {viewport: {width: 360, height: 740}, hasTouch: true, isMobile: true, colorScheme: 'dark'};
let server;
let browser;

before(async () => {
  server = await Server.start();
  browser = await launch();
  await server.videos();
});

afterEach(async () => {
  for (const context of browser.contexts()) await context.close();
});

after(async () => {
  await browser?.close();
  await server?.stop();
});

test('a strict policy, kept', LONG, async () => {
  const view = await View.open(browser, server);
  const response = await view.page.goto(`${server.address}/`);
  const policy = response.headers()['content-security-policy'];
  assert.match(policy, /default-src 'none'/);
  assert.doesNotMatch(policy, /unsafe-(inline|eval)/);
  await view.page.waitForSelector('a.card');
  await view.close();
});

test('search as one types', LONG, async () => {
  const view = await View.open(browser, server);
  await view.go();
  await view.page.waitForSelector('a.card:has-text("City lights")');
  const titles = () => view.page.locator('.cards .card-title').allTextContents();
  await view.page.locator('input[type=search]').pressSequentially('baltic s');
  await view.wait(() => [...document.querySelectorAll('.cards .card-title')].length === 2);
  assert.deepEqual(await titles(), ['Baltic sea', 'Baltic storm']);
  assert.match(await view.page.textContent('.count'), /2 videos/);
  await view.page.fill('input[type=search]', 'nothing of the kind');
  await view.wait(() => /No title/.test(document.querySelector('.library-state').textContent));
  await view.page.fill('input[type=search]', '');
  await view.page.waitForSelector('a.card:has-text("City lights")');
  await view.wait(() => [...document.querySelectorAll('a.card img')].some((image) => image.naturalWidth > 0));
  await view.close();
});

test('a phone: nothing is wider than the screen, and a tap plays', LONG, async () => {
  const view = await View.open(browser, server, PHONE);
  const wide = () => view.page.evaluate(() => [...document.querySelectorAll('*')]
    .filter((node) => !node.closest('.sprite, .unseen') && node.getBoundingClientRect().right > innerWidth + 1)
    .map((node) => node.className || node.tagName));
  await view.go();
  await view.page.waitForSelector('a.card');
  assert.deepEqual(await wide(), []);
  assert.ok(await view.page.evaluate(() => document.documentElement.scrollWidth <= innerWidth));
  await view.page.tap('a.card:has-text("coded")');
  await view.playing();
  assert.deepEqual(await wide(), []);
  // The controls hide by themselves, and a tap brings them back.
  await view.wait(() => document.querySelector('.player').hasAttribute('data-idle'));
  await view.page.evaluate(() => new MutationObserver(([{target}]) => {
    film.woke ||= !target.hasAttribute('data-idle');
  }).observe(document.querySelector('.player'), {attributeFilter: ['data-idle']}));
  await view.page.tap('.click-area', {position: {x: 180, y: 300}});
  await view.wait(() => film.woke);
  assert.equal(await view.page.evaluate(() => tarnvte.video.paused), false);
  await view.run(false);
  const small = await view.page.evaluate(() => [...document.querySelectorAll('.controls button')]
    .filter((button) => button.offsetParent && (button.offsetWidth < 40 || button.offsetHeight < 40)).length);
  assert.equal(small, 0);
  await view.page.tap('button[aria-label=Settings]');
  await view.page.waitForSelector('.menu:not([hidden])');
  assert.deepEqual(await wide(), []);
  await view.close();
});

test('without a mouse: from the library into the film, its menus, and back', LONG, async () => {
  const view = await View.open(browser, server);
  const {keyboard} = view.page;
  const focused = () => view.page.evaluate(() => document.activeElement.getAttribute('aria-label') ?? document.activeElement.textContent);
  await view.go();
  await view.page.waitForSelector('a.card:has-text("coded")');
  for (let i = 0; i < 20 && !/^coded/.test(await focused()); ++i) await keyboard.press('Tab');
  assert.match(await focused(), /^coded/);
  await keyboard.press('Enter');
  await view.playing();
  await keyboard.press('k');
  await view.wait(() => tarnvte.video.paused);
  const before = (await view.state()).time;
  await keyboard.press('l');
  await view.wait((time) => Math.abs(tarnvte.time - time - 10) < 0.6, before);
  await keyboard.press('5');
  await view.wait(() => Math.abs(tarnvte.time - tarnvte.duration / 2) < 0.6);
  await keyboard.press(' ');
  await view.playing();
  await keyboard.press('m');
  await view.wait(() => tarnvte.video.muted);

  // By Tab to the seek bar, which says where it is.
  for (let i = 0; i < 30 && await focused() !== 'Position'; ++i) await keyboard.press('Tab');
  assert.equal(await focused(), 'Position');
  const bar = view.page.locator('[role=slider][aria-label=Position]');
  await keyboard.press('k');
  await view.wait(() => tarnvte.video.paused);
  const spoken = await bar.getAttribute('aria-valuetext');
  assert.match(spoken, / of 2 minutes 30 seconds/);
  await keyboard.press('ArrowRight');
  await view.wait((old) => document.querySelector('.seek').getAttribute('aria-valuetext') !== old, spoken);

  // A menu by its arrows.
  for (let i = 0; i < 30 && await focused() !== 'Settings'; ++i) await keyboard.press('Tab');
  assert.equal(await focused(), 'Settings');
  await keyboard.press('Enter');
  assert.match(await focused(), /^Quality/);
  await keyboard.press('ArrowDown');
  await keyboard.press('ArrowDown');
  await keyboard.press('ArrowRight');
  assert.equal(await focused(), 'Normal');
  await keyboard.press('ArrowDown');
  await keyboard.press('Enter');
  assert.equal(await view.page.evaluate(() => tarnvte.video.playbackRate), 1.25);
  assert.equal(await focused(), 'Settings');
  await keyboard.press('?');
  await view.page.waitForSelector('dialog[open]');
  await keyboard.press('Escape');
  await view.wait(() => !document.querySelector('dialog[open]'));
  await view.close();
});
