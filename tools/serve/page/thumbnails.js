// A small picture of the moment under the pointer, on the timeline.
import {make, clock} from './dom.js';
import {get} from './server.js';

const pauseFor = 150;      // milliseconds: who passes asks for nothing
let wanted = 0, timer = 0;
const box = make('div', document.body, {id: 'thumbnail', hidden: true});
const image = make('img', box, {alt: ''});
const text = make('div', box);

// The server remembers what it made: moments that look alike on the bar are one. `width`: seconds on the bar.
export function hover(bar, event, site, seconds, width) {
  const step = Math.max(1, Math.round(width / 120)), second = Math.floor(seconds / step) * step;
  const turn = ++wanted;
  clearTimeout(timer);
  timer = setTimeout(async () => {
    const answer = await get(`/thumbnail?site=${site}&at=${second}`).catch(() => null);
    if (turn !== wanted) return;
    box.hidden = !answer?.ok;
    if (box.hidden) return;
    const url = URL.createObjectURL(await answer.blob());
    image.onload = () => URL.revokeObjectURL(url);
    image.src = url;
    text.textContent = clock(second);
    const lane = bar.getBoundingClientRect();
    box.style.left = Math.max(0, Math.min(event.clientX - 80, document.documentElement.clientWidth - 170)) + scrollX + 'px';
    box.style.top = lane.top + scrollY + 'px';
  }, pauseFor);
}

export function leave() {
  ++wanted;
  clearTimeout(timer);
  box.hidden = true;
}
