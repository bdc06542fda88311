// A picture looked at from near: the wheel or two fingers zoom, a drag moves, a double click shows all.

const most = 8;

export class Zoom {
  // What `stage` shows of its children; `off` says when others want the presses.
  constructor(stage, off = () => false) {
    this.stage = stage;
    this.off = off;
    this.fingers = new Map();
    this.all();
    stage.addEventListener('wheel', event => this.wheel(event), {passive: false});
    stage.addEventListener('dblclick', () => { if (!off()) this.all(); });
    stage.addEventListener('pointerdown', event => this.down(event));
    stage.addEventListener('pointermove', event => this.move(event));
    for (const end of ['pointerup', 'pointercancel']) stage.addEventListener(end, event => this.fingers.delete(event.pointerId));
  }

  all() { this.set(1, 0, 0); }

  // `x` and `y`: where the picture's corner lies, in widths and heights of the stage.
  set(scale, x, y) {
    this.scale = Math.max(1, Math.min(most, scale));
    this.x = Math.min(0, Math.max(1 - this.scale, x));
    this.y = Math.min(0, Math.max(1 - this.scale, y));
    this.stage.classList.toggle('zoomed', this.scale > 1);
    this.stage.dataset.zoom = this.scale;
    for (const child of this.stage.children)
      child.style.transform = this.scale === 1 ? '' : `translate(${this.x * 100}%, ${this.y * 100}%) scale(${this.scale})`;
  }

  around(event, factor) {
    const box = this.stage.getBoundingClientRect();
    const x = (event.clientX - box.left) / box.width, y = (event.clientY - box.top) / box.height;
    const by = Math.max(1, Math.min(most, this.scale * factor)) / this.scale;
    this.set(this.scale * by, x - (x - this.x) * by, y - (y - this.y) * by);
  }

  wheel(event) {
    if (this.off() || (this.scale === 1 && event.deltaY > 0)) return;  // the page scrolls
    event.preventDefault();
    this.around(event, event.deltaY < 0 ? 1.25 : 1 / 1.25);
  }

  down(event) {
    if (this.off()) return;
    this.fingers.set(event.pointerId, event);
    if (this.scale > 1) this.stage.setPointerCapture(event.pointerId);
  }

  move(event) {
    const before = this.fingers.get(event.pointerId);
    if (!before) return;
    const box = this.stage.getBoundingClientRect();
    const apart = () => {
      const [one, other] = this.fingers.values();
      return Math.hypot(one.clientX - other.clientX, one.clientY - other.clientY);
    };
    const was = this.fingers.size === 2 ? apart() : 0;
    this.fingers.set(event.pointerId, event);
    if (was) this.around(event, apart() / was);
    else this.set(this.scale, this.x + (event.clientX - before.clientX) / box.width, this.y + (event.clientY - before.clientY) / box.height);
  }
}
