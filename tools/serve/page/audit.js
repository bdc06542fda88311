// Who did what, for who manages.
import {$, clock, make, tell} from './dom.js';
import {ask, may} from './server.js';

async function show() {
  const {kept, lines} = await ask('/audit');
  $('did').replaceChildren();
  if (!kept) {
    $('did').textContent = 'nothing is kept: see --audit, or audit in the configuration';
    return;
  }
  const table = make('table', $('did'), {className: 'held'});
  const row = (cells, tag) => { const line = make('tr', table); for (const textContent of cells) make(tag, line, {textContent}); };
  row(['when', 'who', 'from', 'did', 'what', 'result'], 'th');
  for (const line of lines)
    row([clock(Date.parse(line.time) / 1000, 0, 19), line.user, line.from, line.did, line.what ?? '', line.result], 'td');
}
$('audit').hidden = !may('manage');
$('audit').ontoggle = () => { if ($('audit').open) show().catch(tell); };
