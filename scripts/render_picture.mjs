// Renders a .glb into a PNG in Debian's Chromium with three.js, lit by a low sun, for the
// pictures of the documentation: node scripts/render_picture.mjs MESH.glb OUT.png [WIDTH HEIGHT]
import { createServer } from 'node:http';
import { readFileSync } from 'node:fs';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';

const [mesh, output, width = '1200', height = '675'] = process.argv.slice(2);
if (!mesh || !output) {
  console.error('usage: render_picture.mjs MESH.glb OUT.png [WIDTH HEIGHT]');
  process.exit(2);
}
const modules = join(dirname(fileURLToPath(import.meta.url)), '..', 'apps', 'editor', 'node_modules');
const { chromium } = await import(join(modules, 'playwright-core', 'index.mjs'));

const page = `<!doctype html><html><body style="margin:0;background:#dfe6ec">
<script type="importmap">{"imports":{"three":"/three/build/three.module.js","three/addons/":"/three/examples/jsm/"}}</script>
<script type="module">
import * as THREE from 'three';
import { GLTFLoader } from 'three/addons/loaders/GLTFLoader.js';
const renderer = new THREE.WebGLRenderer({ antialias: true, preserveDrawingBuffer: true });
renderer.setSize(innerWidth, innerHeight);
renderer.toneMapping = THREE.ACESFilmicToneMapping;
document.body.append(renderer.domElement);
const scene = new THREE.Scene();
scene.background = new THREE.Color(0xdfe6ec);
scene.add(new THREE.HemisphereLight(0xdde8ff, 0x4a4030, 1.1));
const sun = new THREE.DirectionalLight(0xfff1dc, 2.6);
scene.add(sun);
const gltf = await new GLTFLoader().loadAsync('/mesh.glb');
scene.add(gltf.scene);
const box = new THREE.Box3().setFromObject(gltf.scene);
const size = box.getSize(new THREE.Vector3()), centre = box.getCenter(new THREE.Vector3());
const reach = Math.max(size.x, size.z);
sun.position.set(centre.x + reach * 0.2, centre.y + reach * 0.5, centre.z + reach);
const camera = new THREE.PerspectiveCamera(35, innerWidth / innerHeight, reach / 100, reach * 10);
camera.position.set(centre.x + reach * 0.75, centre.y + reach * 0.55, centre.z + reach * 0.95);
camera.lookAt(centre.x, box.min.y + size.y * 0.25, centre.z);
renderer.render(scene, camera);
document.title = 'rendered';
</script></body></html>`;

const files = {
  '/': ['text/html', () => page],
  '/mesh.glb': ['model/gltf-binary', () => readFileSync(resolve(mesh))],
};
const server = createServer((request, response) => {
  const path = new URL(request.url, 'http://localhost').pathname;
  try {
    if (files[path]) {
      response.writeHead(200, { 'Content-Type': files[path][0] }).end(files[path][1]());
    } else if (path.startsWith('/three/') && !path.includes('..')) {
      response.writeHead(200, { 'Content-Type': 'text/javascript' }).end(readFileSync(join(modules, path)));
    } else {
      response.writeHead(404).end();
    }
  } catch {
    response.writeHead(404).end();
  }
});
await new Promise((done) => server.listen(0, '127.0.0.1', done));

const browser = await chromium.launch({
  executablePath: '/usr/bin/chromium', headless: true,
  args: ['--no-sandbox', '--use-gl=angle', '--use-angle=swiftshader', '--enable-unsafe-swiftshader'],
});
try {
  const tab = await browser.newPage({ viewport: { width: Number(width), height: Number(height) } });
  const errors = [];
  tab.on('pageerror', (error) => errors.push(error.message));
  await tab.goto(`http://127.0.0.1:${server.address().port}/`);
  await tab.waitForFunction(() => document.title === 'rendered', null, { timeout: 60000 }).catch(() => {
    throw new Error(`the picture was not rendered: ${errors.join('; ') || 'timeout'}`);
  });
  await tab.locator('canvas').screenshot({ path: output });
  console.log(`wrote ${output}`);
} finally {
  await browser.close();
  server.close();
}
