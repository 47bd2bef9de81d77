// The 3-D view: each terrain's mesh made here from its heights, coloured by height and
// slope or wearing the bake of its first colour material, drawn on demand only (an idle
// editor draws nothing).
import * as THREE from 'three';
import { OrbitControls } from '/page/three/OrbitControls.js';

export class Viewport {
  constructor(canvas) {
    this.canvas = canvas;
    this.renderer = new THREE.WebGLRenderer({ canvas, antialias: true, preserveDrawingBuffer: true });
    this.renderer.setPixelRatio(window.devicePixelRatio);
    this.scene = new THREE.Scene();
    this.scene.background = new THREE.Color(0x2b2f36);
    this.camera = new THREE.PerspectiveCamera(45, 1, 1, 100000);
    this.camera.position.set(400, 350, 500);
    this.controls = new OrbitControls(this.camera, canvas);
    this.controls.addEventListener('change', () => this.draw());
    this.scene.add(new THREE.HemisphereLight(0xdfe8ff, 0x3a3025, 1.2));
    const sun = new THREE.DirectionalLight(0xffffff, 1.6);
    sun.position.set(0.5, 1, 0.3);
    this.scene.add(sun);
    this.material = new THREE.MeshStandardMaterial({ vertexColors: true, roughness: 0.9, flatShading: false });
    this.hullMaterial = new THREE.MeshStandardMaterial({ color: 0x6b625a, roughness: 1, side: THREE.DoubleSide });
    this.lineMaterial = new THREE.LineBasicMaterial({ color: 0xf0c040 });
    this.terrains = new Map();  // terrain id -> mesh, with its hull and isoparms as children
    this.textures = new Map();  // terrain id -> { version, texture, material } of its bake
    this.showIsoparms = true;
    this.framed = false;
    new ResizeObserver(() => this.resize()).observe(canvas);
    this.resize();
  }

  resize() {
    const { clientWidth: width, clientHeight: height } = this.canvas;
    if (width === 0 || height === 0) return;
    this.renderer.setSize(width, height, false);
    this.camera.aspect = width / height;
    this.camera.updateProjectionMatrix();
    this.draw();
  }

  draw() {
    if (this.pending) return;
    this.pending = requestAnimationFrame(() => {
      this.pending = 0;
      this.renderer.render(this.scene, this.camera);
    });
  }

  set wireframe(on) {
    this.material.wireframe = on;
    for (const { material } of this.textures.values()) material.wireframe = on;
    this.draw();
  }
  get wireframe() { return this.material.wireframe; }

  // Replaces a terrain's mesh: columns x rows heights over sizeX x sizeZ, row 0 at the far
  // edge as the engine lays it out.
  show(terrain, values) {
    const { columns, rows, sizeX, sizeZ } = terrain;
    let mesh = this.terrains.get(terrain.id);
    const count = columns * rows;
    if (!mesh || mesh.userData.columns !== columns || mesh.userData.rows !== rows) {
      if (mesh) { this.scene.remove(mesh); mesh.traverse((object) => object.geometry.dispose()); }
      const geometry = new THREE.BufferGeometry();
      geometry.setAttribute('position', new THREE.BufferAttribute(new Float32Array(count * 3), 3));
      geometry.setAttribute('normal', new THREE.BufferAttribute(new Float32Array(count * 3), 3));
      geometry.setAttribute('color', new THREE.BufferAttribute(new Float32Array(count * 3), 3));
      // Where a bake lies: u along the columns, v = 0 on the grid's last row, which is the
      // bake's first.
      const uv = new Float32Array(count * 2);
      for (let y = 0, i = 0; y < rows; ++y)
        for (let x = 0; x < columns; ++x, i += 2) {
          uv[i] = columns > 1 ? x / (columns - 1) : 0;
          uv[i + 1] = rows > 1 ? (rows - 1 - y) / (rows - 1) : 0;
        }
      geometry.setAttribute('uv', new THREE.BufferAttribute(uv, 2));
      const index = new Uint32Array((columns - 1) * (rows - 1) * 6);
      let k = 0;
      for (let y = 0; y + 1 < rows; ++y)
        for (let x = 0; x + 1 < columns; ++x) {
          const a = y * columns + x, b = a + 1, c = a + columns, d = c + 1;
          index.set([a, c, b, b, c, d], k);
          k += 6;
        }
      geometry.setIndex(new THREE.BufferAttribute(index, 1));
      mesh = new THREE.Mesh(geometry, this.textures.get(terrain.id)?.material ?? this.material);
      mesh.userData = { columns, rows };
      this.scene.add(mesh);
      this.terrains.set(terrain.id, mesh);
    }
    this.fill(mesh, terrain, values);
    this.extras(mesh, terrain);
    if (!this.framed) { this.frame(mesh); this.framed = true; }
    this.draw();
  }

  // Positions, normals from the grid's central differences (one-sided at the border) and
  // colours in one pass: grass on the flats, rock on the slopes, snow on the heights. A
  // curved terrain lies on its sphere, as the build places it, and takes the mesh's normals.
  fill(mesh, terrain, values) {
    const { columns, rows, sizeX, sizeZ } = terrain;
    const curvature = terrain.mesh?.curvature;
    const attributes = mesh.geometry.attributes;
    const position = attributes.position.array, normal = attributes.normal.array, colour = attributes.color.array;
    const stepX = columns > 1 ? sizeX / (columns - 1) : 1, stepZ = rows > 1 ? sizeZ / (rows - 1) : 1;
    const low = terrain.minimum, span = Math.max(terrain.maximum - terrain.minimum, 1e-9);
    for (let y = 0, i = 0; y < rows; ++y) {
      const up = y > 0 ? -columns : 0, down = y + 1 < rows ? columns : 0;
      const dz = ((down ? 1 : 0) + (up ? 1 : 0)) * stepZ || 1;
      for (let x = 0; x < columns; ++x, ++i) {
        const h = values[i];
        const left = x > 0 ? 1 : 0, right = x + 1 < columns ? 1 : 0;
        const gx = (values[i + right] - values[i - left]) / (((left + right) * stepX) || 1);
        const gz = (values[i + down] - values[i + up]) / dz;
        const length = Math.hypot(gx, 1, gz);
        const k = 3 * i;
        position[k] = x * stepX - sizeX / 2;
        position[k + 1] = h;
        position[k + 2] = y * stepZ - sizeZ / 2;
        if (curvature) place(position, k, curvature, h);
        normal[k] = -gx / length;
        normal[k + 1] = 1 / length;
        normal[k + 2] = -gz / length;
        const t = (h - low) / span;
        const rock = Math.min(1, Math.max(0, (1 - 1 / length - 0.15) * 4));
        const snow = Math.min(1, Math.max(0, (t - 0.8) * 6)) * (1 - rock);
        let r = 0.32 + 0.2 * t, g = 0.45 + 0.15 * t, b = 0.25;
        r += (0.45 - r) * rock; g += (0.42 - g) * rock; b += (0.40 - b) * rock;
        colour[k] = r + (0.93 - r) * snow;
        colour[k + 1] = g + (0.94 - g) * snow;
        colour[k + 2] = b + (0.96 - b) * snow;
      }
    }
    attributes.position.needsUpdate = attributes.normal.needsUpdate = attributes.color.needsUpdate = true;
    if (curvature) mesh.geometry.computeVertexNormals();
    mesh.geometry.computeBoundingSphere();
  }

  // The hull (a skirt from the border down to its depth, closed below) and the isoparm
  // outline (the borders and n inner lines each way), made from the surface's points.
  extras(mesh, terrain) {
    for (const child of [...mesh.children]) { mesh.remove(child); child.geometry.dispose(); }
    const { columns, rows } = terrain;
    const points = mesh.geometry.attributes.position.array;
    const options = terrain.mesh ?? {};
    if (options.hull != null && columns > 1 && rows > 1) {
      const ring = [];
      for (let x = 0; x < columns - 1; ++x) ring.push(x);
      for (let y = 0; y < rows - 1; ++y) ring.push(y * columns + columns - 1);
      for (let x = columns - 1; x > 0; --x) ring.push((rows - 1) * columns + x);
      for (let y = rows - 1; y > 0; --y) ring.push(y * columns);
      const n = ring.length;
      const vertices = new Float32Array((2 * n + 1) * 3);
      ring.forEach((p, i) => {
        vertices.set([points[3 * p], points[3 * p + 1], points[3 * p + 2]], 3 * i);
        vertices.set([points[3 * p], -options.hull, points[3 * p + 2]], 3 * (n + i));
      });
      vertices.set([0, -options.hull, 0], 6 * n);
      const index = [];
      for (let i = 0; i < n; ++i) {
        const j = (i + 1) % n;
        index.push(i, n + i, j, j, n + i, n + j, n + i, 2 * n, n + j);
      }
      const geometry = new THREE.BufferGeometry();
      geometry.setAttribute('position', new THREE.BufferAttribute(vertices, 3));
      geometry.setIndex(index);
      geometry.computeVertexNormals();
      mesh.add(new THREE.Mesh(geometry, this.hullMaterial));
    }
    if (this.showIsoparms && columns > 1 && rows > 1) {
      const segments = [];
      const line = (at, count, step) => {
        for (let t = 0; t + 1 < count; ++t) {
          const a = 3 * (at + t * step), b = a + 3 * step;
          segments.push(points[a], points[a + 1], points[a + 2], points[b], points[b + 1], points[b + 2]);
        }
      };
      const direction = (extent, count, along) => {
        const inner = Math.max(0, Math.min(options.isoparms ?? 1, extent - 2));
        for (let k = 0; k <= inner + 1; ++k) {
          const index = Math.round((k / (inner + 1)) * (extent - 1));
          if (along) line(index * columns, columns, 1); else line(index, rows, columns);
        }
      };
      direction(rows, columns, true);
      direction(columns, rows, false);
      const geometry = new THREE.BufferGeometry();
      geometry.setAttribute('position', new THREE.BufferAttribute(new Float32Array(segments), 3));
      mesh.add(new THREE.LineSegments(geometry, this.lineMaterial));
    }
  }

  textureVersion(id) { return this.textures.get(id)?.version; }

  // Puts a terrain's bake on its mesh ({ width, height, version, data: sRGB RGB bytes }), or
  // takes it off (null) for the height-and-slope colours.
  paint(id, bake) {
    const old = this.textures.get(id);
    if (!bake && !old) return;
    if (old) { old.texture.dispose(); old.material.dispose(); this.textures.delete(id); }
    if (bake) {
      const { width, height, data } = bake;
      const rgba = new Uint8Array(width * height * 4);
      for (let i = 0, j = 0; i < rgba.length; i += 4, j += 3) {
        rgba[i] = data[j]; rgba[i + 1] = data[j + 1]; rgba[i + 2] = data[j + 2]; rgba[i + 3] = 255;
      }
      const texture = new THREE.DataTexture(rgba, width, height, THREE.RGBAFormat);
      texture.colorSpace = THREE.SRGBColorSpace;
      texture.magFilter = THREE.LinearFilter;
      texture.minFilter = THREE.LinearMipmapLinearFilter;
      texture.generateMipmaps = true;
      texture.anisotropy = this.renderer.capabilities.getMaxAnisotropy();
      // Pixel k of n samples the mesh at k / (n - 1): texel centres on the grid's border.
      texture.repeat.set(width > 1 ? (width - 1) / width : 0, height > 1 ? (height - 1) / height : 0);
      texture.offset.set(0.5 / width, 0.5 / height);
      texture.needsUpdate = true;
      const material = new THREE.MeshStandardMaterial({ map: texture, roughness: 0.9, wireframe: this.material.wireframe });
      this.textures.set(id, { version: bake.version, texture, material });
    }
    const mesh = this.terrains.get(id);
    if (mesh) mesh.material = this.textures.get(id)?.material ?? this.material;
    this.draw();
  }

  forgetAll() { this.forget(new Set()); this.framed = false; }

  forget(ids) {
    for (const [id, mesh] of this.terrains)
      if (!ids.has(id)) {
        this.scene.remove(mesh);
        mesh.traverse((object) => object.geometry.dispose());
        this.terrains.delete(id);
        this.paint(id, null);
      }
    this.draw();
  }

  frame(mesh = [...this.terrains.values()][0]) {
    if (!mesh) return;
    const sphere = mesh.geometry.boundingSphere;
    this.controls.target.copy(sphere.center);
    const distance = sphere.radius / Math.sin((this.camera.fov * Math.PI) / 360);
    this.camera.position.copy(sphere.center).add(new THREE.Vector3(0.6, 0.6, 0.75).normalize().multiplyScalar(distance));
    this.camera.near = distance / 1000;
    this.camera.far = distance * 10;
    this.camera.updateProjectionMatrix();
    this.controls.update();
    this.draw();
  }
}

// A flat point lifted by h along its sphere's normal, as the build places a curved terrain:
// the sphere's centre lies a radius below the plane (above it when inverted).
function place(position, k, { radius, invert }, h) {
  const cy = invert ? radius : -radius;
  const dx = position[k], dy = -cy, dz = position[k + 2];
  const length = Math.hypot(dx, dy, dz) || 1;
  const ux = dx / length, uy = dy / length, uz = dz / length;
  const sign = invert ? -1 : 1;
  position[k] = ux * radius + sign * ux * h;
  position[k + 1] = cy + uy * radius + sign * uy * h;
  position[k + 2] = uz * radius + sign * uz * h;
}
