// One bar for each site over a window of time, from months to seconds: recordings, events, gaps with
// their causes, and what is kept. Click to play, drag to move, wheel to zoom, drag the ruler to seek.
import {$, clock, make, shift, tell} from './dom.js';
import {ask} from './server.js';
import {hover, leave} from './thumbnails.js';

const widths = [['month', 31 * 86400], ['week', 7 * 86400], ['day', 86400], ['hour', 3600], ['minute', 60]];
const steps = [1, 5, 15, 60, 300, 900, 3600, 3 * 3600, 6 * 3600, 86400, 7 * 86400];
const shortest = 10, longest = 62 * 86400;   // seconds that are shown

const wanted = 'stopped by the user';        // the cause of gaps that are no fault

let from = 0, to = 0;         // of the window, seconds
let known = null;             // what the server told of a longer one: {from, to, ...}
let asking = 0;
let now = null;               // the moment that is played
let seek = () => {};          // called with seconds

export function useSeek(called) { seek = called; }
export const shownWindow = () => ({from, to});

// Shows this window, and what is in it.
export async function showWindow(start, end) {
  const middle = (start + end) / 2, half = Math.min(longest, Math.max(shortest, end - start)) / 2;
  from = Math.max(1, middle - half);
  to = from + 2 * half;
  $('zoom').hidden = $('ruler').hidden = false;
  draw();
  if (!known || from < known.from || to > known.to || (to - from) * 8 < known.to - known.from) await read();
}

// Asks the server anew.
export async function read() {
  const margin = Math.ceil(to - from), turn = ++asking;
  const range = {from: Math.max(1, Math.floor(from) - margin), to: Math.ceil(to) + margin};
  const found = await ask(`/recordings?from=${range.from}&to=${range.to}`);
  if (turn !== asking) return;
  known = {...found, ...range};
  draw();
}

export const knownSpans = () => known ? known.spans : [];

const at = seconds => (seconds - from) / (to - from) * 100;

// Pieces that cannot be told apart are one.
function marks(bar, items, kind, title) {
  const least = (to - from) / Math.max(bar.clientWidth, 300);
  let last = null;
  for (const item of items) {
    const end = Math.min(item.end === undefined ? Date.now() / 1000 : item.end + 1, to);
    const start = Math.max(item.start, from);
    if (end < from || start > to) continue;
    if (last && start - last.end < least && last.end - last.start < least * 4) {
      last.end = Math.max(last.end, end);
    } else {
      last = {start, end, piece: make('i', bar, {className: kind, title: title(item)})};
    }
    last.piece.style.left = at(last.start) + '%';
    last.piece.style.width = at(last.end) - at(last.start) + '%';
  }
}

const times = item => `${clock(item.start, 0, 19)} to ${item.end === undefined ? 'now' : clock(item.end)}`;

function draw() {
  $('window').textContent = `${clock(from, 0, 19)} to ${clock(to, 0, 19)}`;
  ruler();
  const lists = ['spans', 'events', 'gaps', 'kept'];
  const sites = known ? [...new Set([...known.spans, ...known.gaps].map(each => each.site))].sort((a, b) => a - b) : [];
  const bars = new Map([...$('lanes').children].map(lane => [Number(lane.dataset.site), lane]));
  for (const [site, lane] of bars) if (!sites.includes(site)) lane.remove();
  for (const site of sites) {
    const [spans, events, gaps, kept] = lists.map(list => known[list].filter(each => each.site === site));
    const lane = bars.get(site) || makeLane(site);
    const name = spans.length ? spans[spans.length - 1].name : 'Site ' + site;
    lane.firstChild.textContent = lane.firstChild.title = `${site}: ${name}`;
    const bar = lane.lastChild;
    bar.replaceChildren();
    const why = item => `nothing recorded: ${item.cause}, ${times(item)}`;
    marks(bar, gaps.filter(gap => gap.cause === wanted), 'gap wanted', why);
    marks(bar, gaps.filter(gap => gap.cause !== wanted), 'gap', why);
    marks(bar, spans, 'span', times);
    marks(bar, events, 'event', item => `${item.kind} ${times(item)}`);
    marks(bar, kept, 'kept', item => 'kept ' + times(item));
    make('i', bar, {className: 'now'});
  }
  showNow();
}

function makeLane(site) {
  const lane = make('div', $('lanes'), {className: 'lane'});
  lane.dataset.site = site;
  make('span', lane, {className: 'name'});
  const bar = make('div', lane, {className: 'bar'});
  bar.onpointerdown = event => { leave(); drag(bar, event); };
  bar.addEventListener('pointermove', event => {
    if (!event.buttons && event.pointerType === 'mouse') hover(bar, event, site, secondsAt(bar, event), to - from);
  });
  bar.onpointerleave = leave;
  bar.addEventListener('wheel', event => { event.preventDefault(); zoom(secondsAt(bar, event), event.deltaY > 0 ? 1.4 : 1 / 1.4); },
    {passive: false});
  return lane;
}

function secondsAt(element, event) {
  const box = element.getBoundingClientRect();
  return from + (event.clientX - box.left) / box.width * (to - from);
}

const show = (start, end) => showWindow(start, end).catch(tell);

function zoom(around, factor) {
  const least = shortest / (to - from), most = longest / (to - from);
  const by = Math.min(most, Math.max(least, factor));
  show(around - (around - from) * by, around + (to - around) * by);
}

// Moves the window; a press that does not move seeks.
function drag(bar, event) {
  const start = {x: event.clientX, from, to};
  let moved = false;
  bar.setPointerCapture(event.pointerId);
  bar.onpointermove = move => {
    const pixels = move.clientX - start.x;
    moved ||= Math.abs(pixels) > 4;
    const seconds = pixels / bar.clientWidth * (start.to - start.from);
    if (moved) show(start.from - seconds, start.to - seconds);
  };
  bar.onpointerup = bar.onpointercancel = up => {
    bar.onpointermove = bar.onpointerup = bar.onpointercancel = null;
    if (!moved && up.type === 'pointerup') seek(Math.floor(secondsAt(bar, up)));
  };
}

function ruler() {
  $('ruler').replaceChildren();
  const step = steps.find(each => (to - from) / each <= 10) || steps[steps.length - 1];
  for (let time = Math.ceil((from - shift(from)) / step) * step + shift(from); time <= to; time += step) {
    const text = step >= 86400 ? clock(time, 5, 10) : step >= 60 ? clock(time, 11, 16) : clock(time);
    make('span', $('ruler'), {textContent: text}).style.left = at(time) + '%';
  }
}

let sought = 0;
$('ruler').onpointerdown = event => {
  const element = $('ruler');
  element.setPointerCapture(event.pointerId);
  const go = move => {
    if (move.type === 'pointermove' && performance.now() - sought < 200) return;
    sought = performance.now();
    seek(Math.floor(secondsAt(element, move)));
  };
  go(event);
  element.onpointermove = go;
  element.onpointerup = element.onpointercancel = up => {
    element.onpointermove = element.onpointerup = element.onpointercancel = null;
    if (up.type === 'pointerup') go(up);
  };
};

function showNow() {
  for (const line of document.querySelectorAll('.bar .now')) {
    line.hidden = now === null || now < from || now > to;
    line.style.left = at(now) + '%';
  }
}
document.addEventListener('moment', event => { now = event.detail === null ? null : event.detail / 1000; showNow(); });

document.addEventListener('zone', () => { if (to > 0) draw(); });

for (const [name, width] of widths) {
  make('button', $('widths'), {textContent: name}).onclick = () => {
    const around = now !== null && now >= from && now <= to ? now : (from + to) / 2;
    show(around - width / 2, around + width / 2);
  };
}
$('back').onclick = () => show(from - (to - from) / 2, to - (to - from) / 2);
$('on').onclick = () => show(from + (to - from) / 2, to + (to - from) / 2);
