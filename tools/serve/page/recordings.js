// What was recorded: the month, one of its days, and the timeline.
import {$, clock, isLocal, make, say, shift, tell, utc} from './dom.js';
import {play} from './player.js';
import {ask} from './server.js';
import {read, showWindow, useSeek} from './timeline.js';

let shown = new Date(), day = null;

export async function calendar() {
  const month = shown.toISOString().slice(0, 7);
  const first = new Date(month + '-01T00:00:00Z');
  const length = new Date(Date.UTC(first.getUTCFullYear(), first.getUTCMonth() + 1, 0)).getUTCDate();
  const starts = [...Array(length + 1).keys()].map(i => first.getTime() / 1000 + i * 86400).map(at => at + shift(at));
  const found = await ask(isLocal() ? '/days?starts=' + starts : '/days?month=' + month);
  $('title').textContent = month;
  $('month').replaceChildren();
  let row = make('tr', $('month'));
  for (const name of 'MTWTFSS') make('td', row, {textContent: name, className: 'dim'});
  for (let number = 1, column = (first.getUTCDay() + 6) % 7; number <= length; ++number, ++column) {
    if (number === 1 || column % 7 === 0) {
      row = make('tr', $('month'));
      if (number === 1) for (let i = 0; i < column; ++i) make('td', row);
    }
    const cell = make('td', row);
    if (!found.days.includes(number)) { cell.textContent = number; continue; }
    const start = first.getTime() / 1000 + (number - 1) * 86400;
    const button = make('button', cell, {textContent: number});
    button.dataset.day = month + '-' + String(number).padStart(2, '0');
    button.setAttribute('aria-pressed', day === start);
    button.onclick = () => showDay(start).catch(tell);
  }
  if (day !== null) { await listDay(); await read(); }
}

async function showDay(start) {
  day = start;
  for (const button of $('month').querySelectorAll('button'))
    button.setAttribute('aria-pressed', button.dataset.day === utc(start, 0, 10));
  await listDay();
  const begin = start + shift(start);
  await showWindow(begin, begin + 86400);
}

async function listDay() {
  const begin = day + shift(day);
  const found = await ask(`/recordings?from=${begin}&to=${begin + 86399}`);
  $('list').replaceChildren();
  const entries = [...found.spans.map(span => [span, 'span', span.name]),
    ...found.events.map(event => [event, 'event', event.kind.replace('_', ' ')])];
  entries.sort((a, b) => a[0].start - b[0].start);
  for (const [item, kind, name] of entries) {
    const entry = make('button', $('list'), {className: kind,
      textContent: `${clock(item.start)} – ${clock(item.end)}  site ${item.site}  ${name}`});
    entry.onclick = () => play(item.start);
  }
  if (!found.complete) say('some recordings could not be read');
}

useSeek(play);

function move(months) {
  shown = new Date(Date.UTC(shown.getUTCFullYear(), shown.getUTCMonth() + months, 15));
  calendar().catch(tell);
}
$('earlier').onclick = () => move(-1);
$('later').onclick = () => move(1);
document.addEventListener('zone', () => calendar().then(() => day !== null && showDay(day)).catch(tell));
document.addEventListener('recorded', () => calendar().catch(tell));
document.addEventListener('kept', () => { if (day !== null) read().catch(tell); });
