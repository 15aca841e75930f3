// Watches films in a browser, each time in a fresh one, and says how long the viewer waited:
//   page_loads.mjs SUPPORT FILM...
// SUPPORT is the browser tests' support.js. On standard input come lines "TITLE SECOND"; each is
// answered by a line of JSON: {"profile", "first", "seek"}, ms from the click to the first picture,
// and from a seek to that second to its picture.
import readline from 'node:readline';

const [support, ...films] = process.argv.slice(2);
const {PATIENCE, Server, launch, until} = await import(support);
const server = await Server.start(films.slice(1), films[0]);
const browser = await launch(['--autoplay-policy=no-user-gesture-required']);
await server.videos();

// Runs in the page. Most browsers do not play these files; this one would, without the engine.
function playNoMatroska() {
  const {canPlayType} = HTMLMediaElement.prototype;
  HTMLMediaElement.prototype.canPlayType = function(type) {
    return type.includes('matroska') ? '' : canPlayType.call(this, type);
  };
}

async function watch(title, second) {
  const context = await browser.newContext({viewport: {width: 1280, height: 800}});
  const page = await context.newPage();
  page.setDefaultTimeout(PATIENCE);
  await page.addInitScript(playNoMatroska);
  const measured = (name) => page.waitForFunction((key) => tarnvte[key], name, {polling: 100})
    .then((handle) => handle.jsonValue());
  await page.goto(`${server.address}/#/`);
  const card = page.locator('a.card', {has: page.getByText(title, {exact: true})});
  await card.waitFor();
  // The viewer has looked at the library for a moment, and the pointer comes before the click.
  await card.hover();
  await page.waitForLoadState('networkidle');
  await card.click();
  const first = await measured('firstPictureMs');
  const profile = await page.evaluate(() => tarnvte.stream.profile);
  await page.evaluate((to) => tarnvte.seek(to), second);
  const seek = await measured('lastSeekMs');
  await page.goto('about:blank');
  await until(() => server.get('/streams'), ({streams}) => streams.length === 0);
  await server.idle();
  await context.close();
  return {profile, first, seek};
}

try {
  for await (const line of readline.createInterface({input: process.stdin})) {
    const [title, second] = line.split(' ');
    console.log(JSON.stringify(await watch(title, Number(second))));
  }
} finally {
  await browser.close();
  await server.stop();
}
