// The editor end to end in Debian's Chromium: the terrain drawn, an edit in the panel
// rebuilding it, a curve knot dragged, a field dropped into a mask, every command undone,
// an operator dragged into a group, a material worn and shown, the about dialog, a mesh exported, the preferences, a
// save that reloads to the same scene, and requests without the token or with bad bodies
// refused.
import { spawn } from 'node:child_process';
import { existsSync, mkdirSync, readFileSync, rmSync, statSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import assert from 'node:assert/strict';

const cli = process.env.VELLGRUND_CLI;
const { chromium } = await import(join(process.env.VELLGRUND_EDITOR_MODULES, 'playwright-core/index.mjs'));
const work = join(process.env.VELLGRUND_TEST_TMP ?? '/tmp', 'editor-browser');
rmSync(work, { recursive: true, force: true });
mkdirSync(work, { recursive: true });

const scene = join(work, 'scene.json');
writeFileSync(scene, JSON.stringify({
  vellgrund: 1,
  objects: [
    { type: 'fspherical', name: 'Spot', params: { FIELD_RADIUS: 80.0 } },
    // At least 350 samples a side, so that the menu's decrease (by 250) has room to act.
    { type: 'oterrain', name: 'Hills',
      params: { TERRAINOBJECT_RESOLUTION_X: 370, TERRAINOBJECT_RESOLUTION_Z: 350, TERRAINOBJECT_HULL: true },
      children: [
        { type: 'onoiseoperator', name: 'Base', params: { NOISEOPERATOR_SEED: 7, TERRAINOPERATOR_HEIGHTSCALE: 40 } },
        { type: 'ogroupoperator', name: 'Group', children: [{ type: 'onoiseoperator', name: 'Inner' }] },
        { type: 'ocurveoperator', name: 'Shape' },
        { type: 'obluroperator', name: 'Soften' }] }],
}));

// Starts the editor on a scene and resolves with its address.
function startEditor(file) {
  // Preferences go to the test's own configuration folder.
  const server = spawn(cli, ['edit', file, '--no-browser'],
    { stdio: ['ignore', 'pipe', 'inherit'], env: { ...process.env, XDG_CONFIG_HOME: work } });
  return new Promise((resolve, reject) => {
    let output = '';
    server.stdout.on('data', (chunk) => {
      output += chunk;
      const found = output.match(/http:\/\/127\.0\.0\.1:\d+\/\?token=[0-9a-f]+/);
      if (found) resolve({ server, address: found[0], origin: new URL(found[0]).origin, token: new URL(found[0]).searchParams.get('token') });
    });
    server.on('exit', (code) => reject(new Error(`the editor ended with ${code}: ${output}`)));
  });
}

const browser = await chromium.launch({
  executablePath: '/usr/bin/chromium', headless: true,
  args: ['--no-sandbox', '--use-gl=angle', '--use-angle=swiftshader', '--enable-unsafe-swiftshader',
    '--disable-background-networking', '--disable-component-update', '--disable-sync', '--no-first-run'],
});
const failures = [];
let editor = await startEditor(scene);
try {
  const page = await browser.newPage({ viewport: { width: 1200, height: 800 } });
  page.on('pageerror', (error) => failures.push(`page error: ${error.message}`));
  const api = (path, init = {}) => page.evaluate(async ([path, init, token]) => {
    const response = await fetch(path, { ...init, headers: { 'Content-Type': 'application/json', 'X-Vellgrund-Token': token, ...(init.headers ?? {}) } });
    return { status: response.status, body: await response.text() };
  }, [path, init, editor.token]);
  const state = async () => JSON.parse((await api('/api/state')).body);
  const read = async (path) => JSON.parse((await api(path)).body);
  // Polls the server until `check` holds. (page.waitForFunction takes a promise for a truthy
  // answer, so it cannot wait on a fetch.)
  const until = async (check, what, timeout = 10000) => {
    for (const end = Date.now() + timeout; !(await check());) {
      if (Date.now() > end) throw new Error(`${what}: not within ${timeout} ms`);
      await new Promise((resolve) => setTimeout(resolve, 50));
    }
  };
  const undoDepth = (depth, what) => until(async () => (await state()).undo === depth, `${what}: undo depth ${depth}`)
    .catch(async (error) => { throw new Error(`${error.message} (it is ${(await state()).undo})`); });
  const idOf = async (name) => {
    const find = (nodes) => nodes.flatMap((n) => (n.name === name ? [n.id] : find(n.children)));
    return find((await state()).tree)[0];
  };

  await page.goto(editor.address);
  await page.waitForSelector('body[data-build]', { timeout: 20000 });

  // The share of the viewport's pixels that are not the background, or that are magenta.
  const viewShare = (magenta) => page.evaluate((magenta) => {
    const view = document.querySelector('#view');
    const copy = document.createElement('canvas');
    copy.width = view.width; copy.height = view.height;
    const context = copy.getContext('2d');
    context.drawImage(view, 0, 0);
    const pixels = context.getImageData(0, 0, copy.width, copy.height).data;
    let counted = 0;
    for (let i = 0; i < pixels.length; i += 4) {
      const [r, g, b] = [pixels[i], pixels[i + 1], pixels[i + 2]];
      if (magenta ? r > g + 60 && b > g + 60 : Math.abs(r - 0x2b) + Math.abs(g - 0x2f) + Math.abs(b - 0x36) > 12) ++counted;
    }
    return counted / (pixels.length / 4);
  }, magenta);

  // The terrain is drawn: the viewport's pixels are not all the background.
  await page.screenshot({ path: join(work, 'editor.png') });
  const coloured = await viewShare(false);
  assert.ok(coloured > 0.05, `the terrain covers ${coloured} of the view`);

  // An edit in the panel rebuilds the heights.
  const base = await idOf('Base');
  const before = JSON.parse((await api('/api/build')).body);
  await page.click(`.row[data-id="${base}"]`);
  await page.waitForSelector('.lil-gui .title:has-text("Base")');
  const scale = page.locator('.lil-gui .controller', { hasText: 'Height scale' }).locator('input').first();
  await scale.fill('80');
  await scale.press('Enter');
  await until(async () => {
    const now = (await read('/api/build')).terrains[0];
    return now.maximum !== before.terrains[0].maximum || now.minimum !== before.terrains[0].minimum;
  }, 'the scale edit changes the terrain');
  const after = JSON.parse((await api('/api/build')).body);
  assert.equal(after.terrains[0].operators.find((o) => o.name === 'Base').rebuilt, false, 'a scale edit recombines only');

  // The blend mode shows its icon; a knot of the curve dragged is one edit of the curve.
  assert.ok(await page.locator('.lil-gui .controller', { hasText: 'Blend' }).locator('.icon').count(), 'blend-mode icon');
  const edits = (await state()).undo;
  await page.click(`.row[data-id="${await idOf('Shape')}"]`);
  const curve = page.locator('canvas.curve').first();
  await curve.waitFor();
  const box = await curve.boundingBox();
  await page.mouse.move(box.x + box.width - 10, box.y + 10);  // the last knot, at (1, 1)
  await page.mouse.down();
  await page.mouse.move(box.x + box.width - 10, box.y + box.height / 2, { steps: 5 });
  await page.mouse.up();
  const shapeId = await idOf('Shape');
  await until(async () => Math.abs((await read(`/api/node?id=${shapeId}`)).values['10001'].value.knots.at(-1).position[1] - 0.5) < 0.1,
    'the dragged knot');
  assert.ok((await state()).undo > edits, 'the drag was undoable');

  // A field dropped from the tree onto an operator's field list becomes its first layer.
  await page.click(`.row[data-id="${base}"]`);
  await page.waitForSelector('.fieldlist');
  await page.dragAndDrop(`.row[data-id="${await idOf('Spot')}"]`, '.fieldlist');
  const spot = await idOf('Spot');
  await until(async () => (await read(`/api/node?id=${base}`)).values['3001'].value.layers[0]?.field === spot,
    'the dropped field');

  // Every command that edits runs from the menu, with what it acts on selected, and one
  // undo takes it back.
  for (const [name, selected] of [['Increase resolution', 'Hills'], ['Decrease resolution', 'Hills'],
    ['Next blend mode', 'Base'], ['Previous blend mode', 'Base'], ['Group operators', 'Base'], ['Ungroup operators', 'Group']]) {
    await page.click(`.row[data-id="${await idOf(selected)}"]`);
    const id = await idOf(selected);
    await until(async () => (await state()).selection.at(-1) === id, `${selected} selected`);
    const snapshot = await state();
    await page.click('#menu-commands > button');
    await page.locator('#menu-commands .items button:not([disabled])', { hasText: name }).first().click({ timeout: 5000 });
    await undoDepth(snapshot.undo + 1, `${name} records one undo step`);
    await page.keyboard.press('Control+z');
    await undoDepth(snapshot.undo, `undo of ${name}`);
    assert.deepEqual((await state()).tree, snapshot.tree, `undo of ${name} restores the tree`);
  }

  // Drag an operator into the group.
  const group = await idOf('Group');
  await page.dragAndDrop(`.row[data-id="${base}"]`, `.row[data-id="${group}"]`, { targetPosition: { x: 60, y: 14 } });
  const findNode = (nodes, id) => nodes.flatMap((n) => (n.id === id ? [n] : findNode(n.children, id)));
  await until(async () => findNode((await state()).tree, group)[0].children.some((c) => c.id === base),
    'the operator dragged into the group');

  // A material with a colour shader from the add menu, dropped into the terrain's materials:
  // the mesh wears its bake.
  const add = async (name) => {
    await page.click('#menu-add > button');
    await page.locator('#menu-add .items button:not([disabled])', { hasText: name }).first().click({ timeout: 10000 });
  };
  await add(/^Material$/);
  await until(async () => (await state()).materials.length === 1, 'the new material');
  const material = (await state()).materials[0].id;
  await add(/^Colour$/);
  await until(async () => (await state()).materials[0].children.length === 1, 'the colour shader in the material');
  const paint = (await state()).materials[0].children[0].id;
  await api('/api/edit', { method: 'POST', body: JSON.stringify({ action: 'set', node: paint, parameter: 10001, value: [1, 0, 1] }) });
  const hills = await idOf('Hills');
  await page.click(`.row[data-id="${hills}"]`);
  await page.waitForSelector('#panel .materials');
  await page.dragAndDrop(`.row[data-id="${material}"]`, '#panel .materials');
  await until(async () => (await read(`/api/node?id=${hills}`)).materials[0]?.id === material, 'the material on the terrain');
  await until(async () => (await viewShare(true)) > 0.05, 'the terrain painted magenta', 20000)
    .catch(async (error) => { await page.screenshot({ path: join(work, 'material.png') }); throw error; });

  // The about command answers in a dialog of the page.
  await page.click('#menu-commands > button');
  await page.locator('#menu-commands .items button', { hasText: 'About' }).click();
  await page.waitForSelector('dialog[open] pre:has-text("Vellgrund")');
  await page.click('dialog[open] button:has-text("OK")');
  // The help command opens the documentation, served by the editor, in a new tab.
  await page.click('#menu-commands > button');
  const [help] = await Promise.all([page.context().waitForEvent('page'),
    page.locator('#menu-commands .items button', { hasText: 'Open help' }).click()]);
  await help.waitForLoadState();
  assert.match(await help.textContent('body'), /user documentation/);
  await help.close();

  // The mesh of the build, exported through the page's file dialog into the scene's folder.
  await page.click('#menu-file > button');
  await page.locator('#menu-file .items button', { hasText: 'Export mesh' }).click();
  await page.fill('dialog[open] .files input', 'hills.glb');
  await page.click('dialog[open] button:has-text("Save")');
  await page.waitForFunction(() => !document.querySelector('dialog[open]'));
  await until(() => existsSync(join(work, 'hills.glb')), 'the exported mesh written');
  assert.ok(statSync(join(work, 'hills.glb')).size > 120 * 100 * 12, 'the exported mesh');

  // Preferences: stored where the tools read them, the cap applied at once, the overlay off.
  await page.click('#menu-file > button');
  await page.locator('#menu-file .items button', { hasText: 'Preferences' }).click();
  await page.fill('dialog[open] input[name=maxResolution]', '50');
  await page.uncheck('dialog[open] input[name=showOverlay]');
  await page.click('dialog[open] button:has-text("Save")');
  await until(async () => (await read('/api/build')).terrains?.[0]?.columns === 51, 'the resolution cap');
  const stored = JSON.parse(readFileSync(join(work, 'vellgrund', 'preferences.json'), 'utf8'));
  assert.equal(stored['1055624']['1000'], 50);
  await page.waitForFunction(() => document.querySelector('#overlay').textContent === '');

  // Save, then open the saved file again: the same tree.
  const saved = await state();
  await page.keyboard.press('Control+s');
  await until(() => readFileSync(scene, 'utf8').includes('"Group"'), 'the saved scene');
  editor.server.kill('SIGINT');
  editor = await startEditor(scene);
  await page.goto(editor.address);
  await page.waitForSelector('body[data-build]', { timeout: 20000 });
  const reloaded = await state();
  const shape = (nodes) => nodes.map((n) => [n.name, n.type, n.enabled, shape(n.children)]);
  assert.deepEqual(shape(reloaded.tree), shape(saved.tree));

  // Refusals: no token, a malformed body, an unknown action; the document stays as it was.
  const plain = await page.evaluate(async () => (await fetch('/api/state', { headers: { Cookie: '' }, credentials: 'omit' })).status);
  assert.equal(plain, 403, 'a request without the token is refused');
  for (const body of ['{not json', '[1, 2]', '{"action": "explode"}', '{"action": "set", "node": 99999, "parameter": 1, "value": 1}',
    '{"action": "set", "node": 1, "parameter": 10002, "value": "many"}']) {
    const reply = await api('/api/edit', { method: 'POST', body });
    assert.equal(reply.status, 400, `${body} is refused`);
    assert.ok(JSON.parse(reply.body).error, 'with a reason');
  }
  assert.deepEqual(shape((await state()).tree), shape(saved.tree));
} catch (error) {
  failures.push(error.stack ?? String(error));
} finally {
  editor.server.kill('SIGINT');
  await browser.close();
}
if (failures.length) {
  console.error(failures.join('\n'));
  process.exit(1);
}
console.log('editor browser test passed');
