// The recorder's cameras, for who manages: added, changed, tried before, removed.
import {$, make, tell} from './dom.js';
import {ask, may, readRecords, recorder} from './server.js';

const form = $('site-form');
let edited = 0;  // the number of the site that is changed; 0: a new one
let picture = '';

// Of a site that is there an empty password is the one it has.
function filled() {
  const fields = new URLSearchParams(new FormData(form));
  if (!fields.get('password')) fields.delete('password');
  return fields;
}
const said = (text, bad = false) => { $('site-said').textContent = text; $('site-said').className = bad ? 'bad' : 'dim'; };
const which = () => edited ? '?site=' + edited : '';

function edit(site = {}) {
  edited = site.site ?? 0;
  for (const field of form.elements)
    if (field.name) field.value = field.name === 'password' ? '' : site[field.name] ?? '';
  form.elements.transport.value = site.transport ?? 'tcp';
  form.elements.plan.value = site.plan ?? 'always';
  form.elements.password.placeholder = site.password ? 'as it is' : '';
  $('site-picture').hidden = true;
  said('');
  form.hidden = false;
  form.elements.name.focus();
}

async function list() {
  const {sites, plans, transports} = await ask('/sites');
  for (const [name, words] of [['plan', plans], ['transport', transports]])
    form.elements[name].replaceChildren(...words.map(word => new Option(word)));
  const table = $('site-list');
  table.replaceChildren();
  const head = make('tr', table);
  for (const textContent of ['site', 'name', 'address', 'plan', '']) make('th', head, {textContent});
  for (const site of sites) {
    const line = make('tr', table);
    line.dataset.site = site.site;
    for (const textContent of [site.site, site.name, site.url, site.enabled ? site.plan : 'off']) make('td', line, {textContent});
    const last = make('td', line);
    make('button', last, {textContent: 'Change', onclick: () => edit(site)});
    make('button', last, {textContent: 'Remove', className: 'remove', onclick: async () => {
      if (!confirm(`Remove site ${site.site}? What it recorded stays.`)) return;
      await ask('/sites?site=' + site.site, 'DELETE').then(list).catch(tell);
    }});
  }
}

form.onsubmit = async event => {
  event.preventDefault();
  try {
    const {site} = await ask('/sites' + which(), edited ? 'PUT' : 'POST', filled());
    form.hidden = true;
    await list();
    $('site-list').querySelector(`[data-site="${site}"]`)?.scrollIntoView({block: 'nearest'});
  } catch (error) { said(error.message, true); }
};
$('site-try').onclick = async () => {
  $('site-picture').hidden = true;
  said('is tried ...');
  try {
    const about = [];
    await readRecords('/try' + which(), undefined, (line, jpeg) => {
      about.push(line);
      if (!jpeg.length) return;
      URL.revokeObjectURL(picture);
      picture = $('site-picture').src = URL.createObjectURL(new Blob([jpeg], {type: 'image/jpeg'}));
      $('site-picture').hidden = false;
    }, 'POST', filled());
    if (about[0].error) throw new Error(about[0].error);
    said(`${about[0].codec} ${about[0].width}x${about[0].height}`);
  } catch (error) { said(error.message, true); }
};
$('site-add').onclick = () => edit();
$('site-cancel').onclick = () => { form.hidden = true; };
$('sites').ontoggle = () => { if ($('sites').open) list().catch(tell); };
$('sites').hidden = !recorder || !may('manage');
