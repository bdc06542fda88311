// A marked span of what is played: exported as a file, or kept from being removed.
import {$, clock, make, say, tell} from './dom.js';
import {ask, may, readRecords} from './server.js';

let from = null, to = null;  // seconds
const text = seconds => seconds === null ? '' : clock(seconds, 0, 19);

export function mark(which, seconds) {
  if (which === 'from') from = Math.floor(seconds); else to = Math.floor(seconds);
  if (from !== null && to !== null && to < from) [from, to] = [to, from];
  $('from').textContent = text(from);
  $('to').textContent = text(to);
  $('export').disabled = $('keep').disabled = from === null || to === null;
}

// The sites that can be chosen, as [number, name].
export function offer(sites) {
  $('which').replaceChildren();
  if (sites.length > 1) make('option', $('which'), {value: sites.map(site => site[0]).join(), textContent: 'all sites'});
  for (const [number, name] of sites) make('option', $('which'), {value: number, textContent: `${number}: ${name}`});
}
const chosen = () => $('which').value.split(',').filter(Boolean);

const megabytes = bytes => (bytes / 1e6).toFixed(1) + ' MB';

async function exportClip(site) {
  const stop = new AbortController();
  const row = make('div', $('clips'), {className: 'clip'});
  const line = make('div', row, {className: 'line'});
  const state = make('span', line, {textContent: `Site ${site}, ${text(from)} to ${text(to)} `});
  const progress = make('progress', line, {max: 1, value: 0});
  const cancel = make('button', line, {className: 'cancel', textContent: 'Cancel'});
  cancel.onclick = () => { stop.abort(); row.remove(); };
  try {
    await readRecords(`/export?site=${site}&from=${from}&to=${to}`, stop.signal, about => {
      if (about.error) throw new Error(about.error);
      if (about.total) progress.value = about.done / about.total;
      if (!about.clip) return;
      progress.remove();
      cancel.textContent = 'Close';
      make('a', state, {href: `clip?id=${about.clip}`, download: about.name,
        textContent: `${about.name}, ${megabytes(about.size)}, ${about.seconds.toFixed(1)} s`});
      make('code', row, {className: 'hash', textContent: 'SHA-256 ' + about.sha256});
      for (const note of about.notes) make('div', row, {className: 'dim', textContent: note});
    }, 'PUT');
  } catch (error) {
    if (stop.signal.aborted) return;
    progress.remove();
    cancel.textContent = 'Close';
    make('span', row, {className: 'bad', textContent: error.message});
  }
}

$('export').onclick = async () => { for (const site of chosen()) await exportClip(site); };
$('keep').hidden = !may('operate');
$('keep').onclick = async () => {
  try {
    for (const site of chosen()) await ask(`/keep?site=${site}&from=${from}&to=${to}&on=1`, 'PUT');
    say('');
    $('span-state').textContent = `kept from ${text(from)} to ${text(to)}`;
    document.dispatchEvent(new Event('kept'));
  } catch (error) { tell(error); }
};
$('export').disabled = $('keep').disabled = true;
document.addEventListener('zone', () => { $('from').textContent = text(from); $('to').textContent = text(to); });
