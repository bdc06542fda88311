// A camera moved from its picture: a press moves it the way from the middle, the further the faster,
// the wheel zooms; a cross of arrows for keys; presets. It stops when it is let go.
import {make, tell} from './dom.js';
import {ask} from './server.js';

const renewed = 700;       // milliseconds; the server stops the camera after 2 s without
const wheelStops = 300;
const still = {pan: 0, tilt: 0, zoom: 0};
const arrows = [['left', '\u25c0', {pan: -50}], ['up', '\u25b2', {tilt: 50}], ['down', '\u25bc', {tilt: -50}],
  ['right', '\u25b6', {pan: 50}], ['nearer', '+', {zoom: 50}], ['farther', '\u2212', {zoom: -50}]];

export class Mover {
  // The picture takes presses while the camera is moved.
  constructor(number, picture, row) {
    this.number = number;
    this.picture = picture;
    this.row = make('div', row, {className: 'ptz', hidden: true});
    this.on = false;
    this.wanted = this.told = still;
    this.busy = false;
    picture.addEventListener('pointerdown', event => this.press(event));
    picture.addEventListener('wheel', event => this.wheel(event), {passive: false});
    addEventListener('blur', () => this.go(still));
    document.addEventListener('visibilitychange', () => this.go(still));
  }

  async toggle() {
    this.on = !this.on;
    this.row.hidden = !this.on;
    this.picture.classList.toggle('moves', this.on);
    if (!this.on) { this.go(still); return; }
    const can = await ask(`/ptz?site=${this.number}`);
    this.row.replaceChildren();
    for (const [name, sign, way] of arrows) {
      if (way.zoom ? !can.zoom : !can.pan_tilt) continue;
      const button = make('button', this.row, {className: name, textContent: sign, title: name});
      button.setAttribute('aria-label', name);
      this.hold(button, {...still, ...way});
    }
    if (can.home) make('button', this.row, {className: 'home', textContent: 'Home'}).onclick = () => this.ask('home=1');
    if (!can.presets.length) return;
    const presets = make('select', this.row, {className: 'presets'});
    presets.setAttribute('aria-label', 'preset');
    make('option', presets, {value: '', textContent: 'go to'});
    can.presets.forEach((name, place) => make('option', presets, {value: place + 1, textContent: name}));
    presets.onchange = () => { if (presets.value) this.ask('preset=' + presets.value); presets.value = ''; };
  }

  ask(query) { return ask(`/ptz?site=${this.number}&${query}`, 'PUT').catch(tell); }

  // A button moves while it is held, by a pointer or a key.
  hold(button, way) {
    button.onpointerdown = event => { button.setPointerCapture(event.pointerId); this.go(way); };
    button.onpointerup = button.onpointercancel = button.onlostpointercapture = button.onblur = () => this.go(still);
    button.onkeydown = event => { if (event.key === ' ' || event.key === 'Enter') { event.preventDefault(); this.go(way); } };
    button.onkeyup = () => this.go(still);
    button.oncontextmenu = event => event.preventDefault();  // of a long touch
  }

  press(event) {
    if (!this.on) return;
    event.preventDefault();
    const way = move => {
      const box = this.picture.getBoundingClientRect();
      const part = (at, from, length) => Math.round(Math.max(-1, Math.min(1, (at - from) / length * 2 - 1)) * 100);
      this.go({pan: part(move.clientX, box.left, box.width), tilt: -part(move.clientY, box.top, box.height), zoom: 0});
    };
    const picture = this.picture;
    picture.setPointerCapture(event.pointerId);
    picture.onpointermove = way;
    picture.onpointerup = picture.onpointercancel = picture.onlostpointercapture = () => {
      picture.onpointermove = picture.onpointerup = picture.onpointercancel = picture.onlostpointercapture = null;
      this.go(still);
    };
    way(event);
  }

  wheel(event) {
    if (!this.on) return;
    event.preventDefault();
    clearTimeout(this.wheelEnd);
    this.wheelEnd = setTimeout(() => this.go(still), wheelStops);
    this.go({...still, zoom: event.deltaY < 0 ? 60 : -60});
  }

  // One request at a time, with the newest way.
  go(way) {
    this.wanted = way;
    if (!this.busy) this.run();
  }

  async run() {
    this.busy = true;
    while (this.wanted !== this.told || this.told !== still) {
      const way = this.wanted;
      try {
        const {problem} = await ask(`/ptz?site=${this.number}&pan=${way.pan}&tilt=${way.tilt}&zoom=${way.zoom}`, 'PUT');
        if (problem) tell(new Error(problem));
      } catch (error) { tell(error); }
      this.told = way;
      if (way === still) continue;
      for (let waited = 0; waited < renewed && this.wanted === way; waited += 50) await new Promise(done => setTimeout(done, 50));
    }
    this.busy = false;
  }
}
