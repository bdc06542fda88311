// What the disks hold, asked for when somebody looks.
import {$, clock, make, tell} from './dom.js';
import {ask} from './server.js';

const size = bytes => bytes < 1e9 ? (bytes / 1e6).toFixed(0) + ' MB' : (bytes / 1e9).toFixed(1) + ' GB';

async function show() {
  const {disks, sites, complete} = await ask('/storage');
  $('held').replaceChildren();
  const row = (parent, cells, tag = 'td') => { const line = make('tr', parent); for (const textContent of cells) make(tag, line, {textContent}); };
  for (const disk of disks) {
    const line = make('div', $('held'), {className: 'disk'});
    make('span', line, {textContent: `${disk.folder}: ${size(disk.recordings)} of recordings, ${size(disk.free)} of ${size(disk.total)} free` +
      (disk.full_at ? `, full on ${clock(disk.full_at, 0, 10)} if nothing is removed` : '')});
    const meter = make('meter', line, {max: disk.total || 1, value: disk.total - disk.free});
    meter.setAttribute('aria-label', 'used');
  }
  const table = make('table', $('held'), {className: 'held'});
  row(table, ['site', 'recordings', 'kept', 'days', 'from', 'to', 'in'], 'th');
  for (const site of sites)
    row(table, [site.site, size(site.recordings), size(site.kept), site.days, clock(site.first, 0, 16), clock(site.last, 0, 16), site.data]);
  if (!complete) make('div', $('held'), {className: 'bad', textContent: 'some of it could not be read'});
}
$('storage').ontoggle = () => { if ($('storage').open) show().catch(tell); };
