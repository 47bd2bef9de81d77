// From a strength edit sent by the page to the new heights drawn in the page, at 501² and
// 1001² samples, and the page's first load; median of repeated edits.
//   node bench/editor/edit_latency.mjs build/release/apps/cli/vellgrund
import { spawn } from 'node:child_process';
import { join, resolve } from 'node:path';

const cli = resolve(process.argv[2] ?? 'build/release/apps/cli/vellgrund');
const modules = resolve(new URL('../../apps/editor/node_modules', import.meta.url).pathname);
const { chromium } = await import(join(modules, 'playwright-core/index.mjs'));

const server = spawn(cli, ['edit', '--no-browser'], { stdio: ['ignore', 'pipe', 'inherit'] });
const address = await new Promise((done) => {
  let text = '';
  server.stdout.on('data', (chunk) => {
    text += chunk;
    const found = text.match(/http:\/\/127\.0\.0\.1:\d+\/\?token=[0-9a-f]+/);
    if (found) done(found[0]);
  });
});
const browser = await chromium.launch({
  executablePath: '/usr/bin/chromium', headless: true,
  args: ['--no-sandbox', '--use-gl=angle', '--use-angle=swiftshader', '--enable-unsafe-swiftshader',
    '--disable-background-networking', '--disable-component-update', '--no-first-run'],
});
try {
  const page = await browser.newPage({ viewport: { width: 1200, height: 800 } });
  const start = performance.now();
  await page.goto(address);  // until the load event: the page and every module it imports
  const loaded = performance.now() - start;
  await page.waitForSelector('body[data-build]', { timeout: 60000 });
  console.log(`first load, assets included: ${loaded.toFixed(0)} ms; first terrain in the page: ${(performance.now() - start).toFixed(0)} ms`);
  // The same page again, as the browser measures it: request to the end of the load event.
  await page.reload();
  const timing = await page.evaluate(() => performance.getEntriesByType('navigation')[0].toJSON());
  console.log(`load again: ${timing.loadEventEnd.toFixed(0)} ms (DOM ready ${timing.domContentLoadedEventEnd.toFixed(0)} ms)`);
  await page.waitForSelector('body[data-build]', { timeout: 60000 });

  // Runs in the page: an edit, then the time until the page shows the build it caused.
  const measure = (resolution) => page.evaluate(async (resolution) => {
    const token = new URLSearchParams(location.search).get('token');
    const call = async (path, body) => (await fetch(path, body ? { method: 'POST', headers: { 'Content-Type': 'application/json', 'X-Vellgrund-Token': token }, body: JSON.stringify(body) } : { headers: { 'X-Vellgrund-Token': token } })).json();
    const state = await call('/api/state');
    const terrain = state.tree[0];
    const hills = terrain.children.find((n) => n.name === 'Rolling hills');
    const shown = () => Number(document.body.dataset.build);
    // The page marks the body once the new heights are in the mesh (drawing follows).
    const waitForBuild = (after) => new Promise((done) => {
      if (shown() > after) return done();
      const observer = new MutationObserver(() => { if (shown() > after) { observer.disconnect(); done(); } });
      observer.observe(document.body, { attributes: true, attributeFilter: ['data-build'] });
    });
    let before = shown();
    for (const axis of [10002, 10003]) await call('/api/edit', { action: 'set', node: terrain.id, parameter: axis, value: resolution });
    await waitForBuild(before);
    const times = [];
    for (let i = 0; i < 15; ++i) {
      before = shown();
      const t0 = performance.now();
      await call('/api/edit', { action: 'set', node: hills.id, parameter: 1001, value: i % 2 ? 1 : 0.5 });
      await waitForBuild(before);
      times.push(performance.now() - t0);
    }
    times.sort((a, b) => a - b);
    return times[Math.floor(times.length / 2)];
  }, resolution);
  for (const resolution of [500, 1000])
    console.log(`strength edit to new heights drawn at ${resolution + 1}²: median ${(await measure(resolution)).toFixed(1)} ms`);
} finally {
  await browser.close();
  server.kill('SIGINT');
}
