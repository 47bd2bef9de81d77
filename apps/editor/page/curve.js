// The curve editor: a curve over 0..1 drawn as its Bézier segments, knots and their tangent
// handles dragged with the pointer, a double click adds a knot, a right click removes one,
// and the presets replace the whole curve.
const PAD = 10;
const PICK = 8;  // pixels within which a knot or handle is picked

export class CurveEditor {
  constructor(container, presets, change) {
    this.change = change;  // (value) => void, value as a scene file gives it
    this.knots = [];
    this.drag = null;
    this.canvas = document.createElement('canvas');
    this.canvas.className = 'curve';
    this.canvas.addEventListener('pointerdown', (event) => this.down(event));
    this.canvas.addEventListener('pointermove', (event) => this.move(event));
    this.canvas.addEventListener('pointerup', () => { this.drag = null; });
    this.canvas.addEventListener('dblclick', (event) => this.addKnot(event));
    this.canvas.addEventListener('contextmenu', (event) => { event.preventDefault(); this.removeKnot(event); });
    const choose = document.createElement('select');
    choose.className = 'presets';
    choose.append(new Option('Preset…', ''), ...presets.map((name) => new Option(name, name)));
    choose.addEventListener('change', () => {
      if (choose.value) this.change({ preset: choose.value });
      choose.value = '';
    });
    container.append(this.canvas, choose);
    new ResizeObserver(() => this.draw()).observe(this.canvas);
  }

  get dragging() { return this.drag !== null; }

  set(value) {
    if (this.dragging || !value?.knots) return;
    this.knots = value.knots.map((k) => ({
      position: [...k.position], left: [...(k.left ?? [0, 0])], right: [...(k.right ?? [0, 0])], flags: k.flags ?? 0,
    }));
    this.draw();
  }

  value() { return { knots: this.knots.map((k) => ({ position: k.position, left: k.left, right: k.right, flags: k.flags })) }; }

  // Curve space (0..1, y up) to canvas pixels and back.
  toPixel([x, y]) {
    const { width, height } = this.canvas;
    return [PAD + x * (width - 2 * PAD), height - PAD - y * (height - 2 * PAD)];
  }
  fromEvent(event) {
    const rect = this.canvas.getBoundingClientRect();
    const { width, height } = this.canvas;
    const px = ((event.clientX - rect.left) * width) / rect.width, py = ((event.clientY - rect.top) * height) / rect.height;
    return [(px - PAD) / (width - 2 * PAD), (height - PAD - py) / (height - 2 * PAD)];
  }

  // The knot or handle under the pointer: { index, part: 'position' | 'left' | 'right' }.
  pick(event) {
    const [ex, ey] = this.toPixel(this.fromEvent(event));
    let best = null, bestDistance = PICK;
    this.knots.forEach((knot, index) => {
      for (const part of ['left', 'right', 'position']) {
        if (part === 'left' && index === 0) continue;
        if (part === 'right' && index === this.knots.length - 1) continue;
        const at = part === 'position' ? knot.position : [knot.position[0] + knot[part][0], knot.position[1] + knot[part][1]];
        const [px, py] = this.toPixel(at);
        const distance = Math.hypot(px - ex, py - ey);
        if (distance <= bestDistance) { best = { index, part }; bestDistance = distance; }
      }
    });
    return best;
  }

  down(event) {
    this.drag = this.pick(event);
    if (this.drag) this.canvas.setPointerCapture(event.pointerId);
  }

  move(event) {
    if (!this.drag) return;
    const [x, y] = this.fromEvent(event);
    const { index, part } = this.drag;
    const knot = this.knots[index];
    const clamp = (v, lo, hi) => Math.min(hi, Math.max(lo, v));
    if (part === 'position') {
      // A knot stays between its neighbours, so the curve stays a function of x.
      const lo = index > 0 ? this.knots[index - 1].position[0] : 0;
      const hi = index + 1 < this.knots.length ? this.knots[index + 1].position[0] : 1;
      knot.position = [clamp(x, lo, hi), clamp(y, 0, 1)];
    } else {
      const dx = x - knot.position[0], dy = y - knot.position[1];
      knot[part] = part === 'left' ? [Math.min(dx, 0), dy] : [Math.max(dx, 0), dy];
    }
    this.draw();
    this.change(this.value());
  }

  addKnot(event) {
    const [x, y] = this.fromEvent(event);
    if (x < 0 || x > 1) return;
    const at = this.knots.findIndex((k) => k.position[0] > x);
    const index = at < 0 ? this.knots.length : at;
    const third = (other) => (other === undefined ? 0 : (other.position[0] - x) / 3);
    this.knots.splice(index, 0, {
      position: [x, Math.min(1, Math.max(0, y))],
      left: [third(this.knots[index - 1]), 0], right: [third(this.knots[index]), 0], flags: 0,
    });
    this.draw();
    this.change(this.value());
  }

  removeKnot(event) {
    const picked = this.pick(event);
    if (!picked || picked.part !== 'position' || this.knots.length <= 2) return;
    this.knots.splice(picked.index, 1);
    this.draw();
    this.change(this.value());
  }

  draw() {
    const canvas = this.canvas;
    const width = canvas.clientWidth * devicePixelRatio, height = canvas.clientHeight * devicePixelRatio;
    if (width === 0) return;
    if (canvas.width !== width || canvas.height !== height) { canvas.width = width; canvas.height = height; }
    const g = canvas.getContext('2d');
    g.clearRect(0, 0, width, height);
    g.strokeStyle = '#34373d';
    g.strokeRect(...this.toPixel([0, 1]), width - 2 * PAD, height - 2 * PAD);
    const point = (p) => this.toPixel(p);
    const add = (a, b) => [a[0] + b[0], a[1] + b[1]];
    g.strokeStyle = '#5b9bd5';
    g.lineWidth = 2;
    g.beginPath();
    this.knots.forEach((knot, i) => {
      if (i === 0) { g.moveTo(...point(knot.position)); return; }
      const previous = this.knots[i - 1];
      g.bezierCurveTo(...point(add(previous.position, previous.right)), ...point(add(knot.position, knot.left)),
        ...point(knot.position));
    });
    g.stroke();
    g.lineWidth = 1;
    this.knots.forEach((knot, i) => {
      const [kx, ky] = point(knot.position);
      for (const part of ['left', 'right']) {
        if ((part === 'left' && i === 0) || (part === 'right' && i === this.knots.length - 1)) continue;
        const [hx, hy] = point(add(knot.position, knot[part]));
        g.strokeStyle = '#888';
        g.beginPath(); g.moveTo(kx, ky); g.lineTo(hx, hy); g.stroke();
        g.beginPath(); g.arc(hx, hy, 3, 0, 2 * Math.PI); g.stroke();
      }
      g.fillStyle = '#e8e8e8';
      g.fillRect(kx - 3.5, ky - 3.5, 7, 7);
    });
  }
}
