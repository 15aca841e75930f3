// What the page says when there is nothing to play.
import assert from 'node:assert/strict';
import {after, afterEach, before, test} from 'node:test';
import {PATIENCE, Server, View, launch} from './support.js';

const LONG = {timeout: PATIENCE * 2};
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

// The next streams are refused as the server would refuse them.
function refuse(view, status, word, message, headers = {}) {
  return view.page.route('**/api/v1/streams', (route) => (route.request().method() === 'POST'
    ? route.fulfill({status, headers, contentType: 'application/json', body: JSON.stringify({error: word, message})})
    : route.continue()));
}

test('a refused stream is explained', LONG, async () => {
  const view = await View.open(browser, server);
  await refuse(view, 409, 'TransVideoOutOfResolutionCapability', 'No.');
  await view.choose('coded');
  const failure = view.page.locator('.failure');
  await failure.waitFor();
  assert.match(await failure.textContent(), /larger than this machine can convert/);
  assert.equal(await failure.locator('button:has-text("Try again")').isVisible(), false);
  await failure.locator('button:has-text("Back to the library")').click();
  await view.page.waitForSelector('.library');
  await view.close();
});

test('an unknown refusal shows the server’s words, and can be tried again', LONG, async () => {
  const view = await View.open(browser, server);
  await refuse(view, 500, 'new-word', 'The disk is asleep.');
  await view.choose('coded');
  const failure = view.page.locator('.failure');
  await failure.waitFor();
  assert.match(await failure.textContent(), /The disk is asleep\./);
  await view.page.unroute('**/api/v1/streams');
  await failure.locator('button:has-text("Try again")').click();
  await view.playing();
  await view.close();
});

test('a busy server is asked again by itself', LONG, async () => {
  const view = await View.open(browser, server);
  await refuse(view, 503, 'busy', 'Busy.', {'Retry-After': '3'});
  await view.choose('coded');
  await view.wait(() => /Trying again in \d s/.test(document.querySelector('.failure')?.textContent));
  await view.page.unroute('**/api/v1/streams');
  await view.playing();
  assert.equal(await view.page.locator('.failure').isVisible(), false);
  await view.close();
});

test('another kind that is refused leaves the film running', LONG, async () => {
  const view = await View.open(browser, server);
  await view.choose('coded');
  await view.playing();
  await refuse(view, 409, 'TransVideoNotSupported', 'No.');
  await view.page.evaluate(() => tarnvte.change({kind: 'smooth'}));
  await view.wait(() => /cannot be converted/.test(document.getElementById('live').textContent));
  await view.playing();
  await view.close();
});

test('a file that is no video, and a number that is none', LONG, async () => {
  const view = await View.open(browser, server);
  await view.go();
  const broken = view.page.locator('.card.broken');
  await broken.first().waitFor();
  assert.match(await broken.first().textContent(), /Damaged film/);
  assert.equal(await broken.first().evaluate((card) => card.tagName), 'DIV');
  await view.go('#/watch/4');
  await view.wait(() => /no longer in the library/.test(document.querySelector('.failure')?.textContent));
  await view.close();
});

test('a server that is gone', LONG, async () => {
  const view = await View.open(browser, server);
  await view.go();
  await view.page.waitForSelector('a.card');
  await view.page.route('**/api/**', (route) => route.abort());
  await view.page.fill('input[type=search]', 'x');
  await view.wait(() => /does not answer/.test(document.querySelector('.library-state').textContent));
  await view.page.unroute('**/api/**');
  await view.page.fill('input[type=search]', '');
  await view.page.waitForSelector('a.card');
  view.errors = view.errors.filter((text) => !/net::ERR_FAILED/.test(text));
  await view.close();
});
