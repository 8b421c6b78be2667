// The page of kym serve. Everything it shows and changes goes through the
// kym commands that the server runs for it: api/run runs one command and
// answers what it prints with --json; api/import saves a whole layer.
'use strict';

const $ = (id) => document.getElementById(id);

function el(tag, properties = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (value === undefined || value === null || value === false) continue;
    if (name === 'text') element.textContent = value;
    else if (name.startsWith('on')) element.addEventListener(name.slice(2), value);
    else if (name in element && name !== 'list') element[name] = value;
    else element.setAttribute(name, value === true ? '' : value);
  }
  for (const child of children.flat()) if (child !== null && child !== undefined) element.append(child);
  return element;
}

class RequestFailed extends Error {
  constructor(status, body) {
    super(body && body.error ? body.error : 'The server answered ' + status + '.');
    this.status = status;
    this.body = body;
  }
}

async function post(path, request) {
  const response = await fetch(path, {
    method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(request),
  });
  let body = null;
  try { body = await response.json(); } catch (ignored) { /* an empty or broken answer */ }
  if (!response.ok) throw new RequestFailed(response.status, body);
  return body;
}

const kym = (...command) => post('api/run', { command });

function say(element, text, failed) {
  element.textContent = text;
  element.className = failed ? 'failed' : 'ok';
}

// Tabs: click, or the arrow keys between them.
const tabs = [$('tab-launch'), $('tab-configure')];
function selectTab(tab) {
  for (const other of tabs) {
    const chosen = other === tab;
    other.setAttribute('aria-selected', String(chosen));
    other.tabIndex = chosen ? 0 : -1;
    $(other.getAttribute('aria-controls')).hidden = !chosen;
  }
  tab.focus();
  // The layers are read when the Configure face is first shown.
  if (tab === tabs[1]) {
    fillConfigureLists();
    if (!editing) loadLayer(false);
  }
}
for (const tab of tabs) {
  tab.addEventListener('click', () => selectTab(tab));
  tab.addEventListener('keydown', (event) => {
    if (event.key !== 'ArrowRight' && event.key !== 'ArrowLeft') return;
    selectTab(tabs[(tabs.indexOf(tab) + 1) % tabs.length]);
  });
}

// ---------------------------------------------------------------- Launch

let departments = [];
let plugins = [];

async function loadSite() {
  const [departmentList, pluginList] = await Promise.all([kym('departments'), kym('plugin', 'list')]);
  departments = departmentList.departments;
  plugins = pluginList.plugins;
  const select = $('launch-department');
  const before = select.value;
  select.replaceChildren(...departments.map((department) => el('option', {
    value: department.name, text: department.name + (department.description ? ' — ' + department.description : ''),
  })));
  const current = departments.find((department) => department.name === before) ||
    departments.find((department) => department.current) || departments[0];
  if (current) select.value = current.name;
  configureListsFilled = false;
  if (!$('configure').hidden) fillConfigureLists();
  if (current && current.name !== shownName) await showApplications(current.name);
}

// The lists of the Configure face, filled when it is shown: a large site
// has thousands of entries that the Launch face does not need.
let configureListsFilled = false;
function fillConfigureLists() {
  if (configureListsFilled) return;
  configureListsFilled = true;
  for (const choice of document.querySelectorAll('.department-choice')) {
    const none = choice.dataset.none;
    choice.replaceChildren(...(none ? [el('option', { value: '', text: none })] : []),
      ...departments.map((department) => el('option', { value: department.name, text: department.name })));
  }
  for (const choice of document.querySelectorAll('.plugin-choice'))
    choice.replaceChildren(...plugins.map((plugin) => el('option', { value: plugin.name, text: plugin.name })));
  fillLayers();
}

// On opening, the applications of the department used last come first, on
// their own: every other request would compete with them for the machine.
async function openPage() {
  try {
    const offered = await kym('apps');
    $('launch-department').replaceChildren(el('option', { value: offered.department, text: offered.department }));
    await showApplications(offered.department, offered);
  } catch (ignored) {
    // No department used before: the list chooses one.
  }
  await loadSite();
}

// Only the answer for the department chosen last is shown, however the answers arrive.
let shownDepartment = 0;
let shownName = null;

async function showApplications(name, answered) {
  const list = $('launch-apps');
  const request = ++shownDepartment;
  shownName = name;
  $('launch-env').hidden = true;
  say($('launch-result'), '');
  try {
    const offered = await (answered || kym('apps', name));
    if (request !== shownDepartment) return;
    $('launch-description').textContent = offered.description;
    showWorkDirectories(name, request);
    const groups = [];
    for (const application of offered.applications) {
      const category = application.category || '(no category)';
      if (!groups.length || groups[groups.length - 1].category !== category) groups.push({ category, applications: [] });
      groups[groups.length - 1].applications.push(application);
    }
    list.replaceChildren(...groups.map((group) => el('section', { className: 'category' },
      el('h2', { text: group.category }),
      el('div', { className: 'apps' }, ...group.applications.map((application) => applicationCard(name, application))))));
    if (!groups.length) list.replaceChildren(el('p', { text: 'Department ' + name + ' offers no applications.' }));
  } catch (error) {
    if (request !== shownDepartment) return;
    list.replaceChildren();
    say($('launch-result'), error.message, true);
  }
}

async function showWorkDirectories(name, request) {
  const select = $('launch-workdir');
  select.replaceChildren(el('option', { value: '', text: 'Home directory' }));
  try {
    const directories = await kym('workdir', 'list', name);
    if (request !== shownDepartment) return;
    select.append(...directories.workDirectories.map((directory) => el('option', { value: directory.name, text: directory.name })));
  } catch (error) {
    if (request === shownDepartment) say($('launch-result'), error.message, true);
  }
}

function applicationCard(department, application) {
  const title = application.description || application.appId;
  return el('div', { className: 'app' },
    el('strong', { text: title }), el('br'),
    el('span', { className: 'from', text: application.appId + ' [' + application.configuration + ']' }), el('br'),
    el('button', { type: 'button', text: 'Start', 'aria-label': 'Start ' + title,
      onclick: () => start(department, application) }),
    el('button', { type: 'button', text: 'Environment', 'aria-label': 'Environment of ' + title,
      onclick: () => showEnvironment(department, application) }));
}

async function start(department, application) {
  const result = $('launch-result');
  const workDirectory = $('launch-workdir').value;
  say(result, 'Starting ' + application.appId + '…');
  try {
    const command = ['launch', department, application.appId, '--from', application.configuration];
    if (workDirectory) command.push('--workdir', workDirectory);
    const started = await kym(...command);
    say(result, 'Started ' + started.application + ' from department ' + started.department +
      (started.workDirectory ? ' in work directory ' + started.workDirectory : '') + '.');
  } catch (error) {
    say(result, error.message, true);
  }
}

async function showEnvironment(department, application) {
  try {
    const shown = await kym('env', department, application.appId, '--from', application.configuration, '--explain');
    $('env-title').textContent = 'Environment of ' + shown.application + ' in department ' + shown.department;
    $('env-rows').replaceChildren(...shown.explanation.map((entry) => el('tr', {},
      el('th', { scope: 'row', text: entry.name }),
      el('td', { text: entry.value === null ? '(not set)' : entry.value }),
      el('td', { text: entry.layers.map((step) => step.layer).join(' → ') }))));
    $('launch-env').hidden = false;
    $('env-title').tabIndex = -1;
    $('env-title').focus();
  } catch (error) {
    say($('launch-result'), error.message, true);
  }
}

$('launch-department').addEventListener('change', (event) => showApplications(event.target.value));

// ---------------------------------------------------------------- Configure

// The layer being edited: the document kym export printed, edited in place,
// the revision it was read at, and every edit made since, so that the edits
// can be made again on top of what another administrator saved meanwhile.
let editing = null;

function fillLayers() {
  const select = $('layer');
  const before = select.value;
  const options = [['site', 'Site settings'], ['base', 'Base settings'], ['sysinfo', 'System information']];
  for (const plugin of plugins) options.push(['plugin:' + plugin.name, 'Plugin ' + plugin.name]);
  for (const department of departments) options.push(['dept:' + department.name, 'Department ' + department.name]);
  select.replaceChildren(...options.map(([value, text]) => el('option', { value, text })));
  if (options.some(([value]) => value === before)) select.value = before;
}

const keyOf = {
  variables: (row) => row.name,
  applications: (row) => row.appId,
  workDirectories: (row) => row.name,
  overlays: (row) => row.configuration + '\u0000' + row.appId,
};

// A list of the document by its path: ['variables', 'unix'] or
// ['applications', {appId: 'nx'}, 'variables', 'common'].
function listAt(documentValue, path) {
  let at = documentValue;
  for (const step of path) {
    if (at === undefined) return undefined;
    at = typeof step === 'string' ? at[step] : at.find((row) => row.appId === step.appId);
  }
  return at;
}

function kindOf(path) {
  const last = path.filter((step) => typeof step === 'string');
  return last.length >= 2 && last[last.length - 2] === 'variables' ? 'variables' : last[last.length - 1];
}

function apply(documentValue, edit) {
  const list = listAt(documentValue, edit.path);
  if (list === undefined) return;
  if (edit.op === 'put') { list[edit.field] = edit.value; return; }
  if (edit.op === 'toggle') {
    const at = list.indexOf(edit.key);
    if (edit.on && at < 0) list.push(edit.key);
    if (!edit.on && at >= 0) list.splice(at, 1);
    return;
  }
  // The row is the n-th of those with its key: a list may hold a name twice.
  const key = keyOf[kindOf(edit.path)];
  let seen = 0;
  const index = list.findIndex((row) => key(row) === edit.key && seen++ === edit.occurrence);
  if (edit.op === 'add') list.push(structuredClone(edit.row));
  else if (edit.op === 'remove' && index >= 0) list.splice(index, 1);
  else if (edit.op === 'set' && index >= 0) list[index][edit.field] = edit.value;
}

// Where a row stands among those of the same key, as the edits find it again.
function identity(path, row) {
  const key = keyOf[kindOf(path)];
  const list = listAt(editing.document, path);
  const mine = key(row);
  return { key: mine, occurrence: list.slice(0, list.indexOf(row)).filter((other) => key(other) === mine).length };
}

function edit(change) {
  editing.edits.push(change);
  apply(editing.document, change);
  say($('configure-status'), 'Changed; not saved yet.');
}

let shownLayer = 0;

async function loadLayer(keepEdits) {
  const name = $('layer').value;
  const request = ++shownLayer;
  $('problems').hidden = true;
  $('conflict').hidden = true;
  try {
    const documentValue = await kym('export', name);
    if (request !== shownLayer) return;
    const edits = keepEdits && editing && editing.layer === name ? editing.edits : [];
    for (const change of edits) apply(documentValue, change);
    editing = { layer: name, revision: documentValue.revision, document: documentValue, edits };
    renderLayer();
    say($('configure-status'), edits.length ? 'Reloaded, with your edits on top: check them and save again.' : '');
  } catch (error) {
    if (request !== shownLayer) return;
    editing = null;
    $('layer-view').replaceChildren();
    say($('configure-status'), error.message, true);
  }
}

const keyFields = ['name', 'appId', 'configuration'];

function textCell(path, row, field, place, label) {
  return el('td', { className: field === 'value' ? 'value' : '' }, el('input', {
    type: 'text', value: row[field] === undefined ? '' : row[field], 'aria-label': label, 'data-place': place,
    onchange: (event) => {
      edit({ op: 'set', path, ...identity(path, row), field, value: event.target.value });
      // The names of the row's controls, and the paths of an application's lists, follow its key.
      if (keyFields.includes(field)) renderLayer();
    },
  }));
}

function flagCell(path, row, field, place, label) {
  return el('td', {}, el('input', {
    type: 'checkbox', checked: Boolean(row[field]), 'aria-label': label, 'data-place': place,
    onchange: (event) => edit({ op: 'set', path, ...identity(path, row), field, value: event.target.checked }),
  }));
}

function removeCell(path, row, label) {
  return el('td', {}, el('button', {
    type: 'button', text: 'Remove', 'aria-label': 'Remove ' + label,
    onclick: () => { edit({ op: 'remove', path, ...identity(path, row) }); renderLayer(); },
  }));
}

// One table of rows, with the fields given; `describe` names a row for screen readers.
function table(title, path, place, fields, newRow, describe) {
  const rows = listAt(editing.document, path) || [];
  const headers = fields.map(([, heading]) => el('th', { scope: 'col', text: heading }));
  const body = rows.map((row, index) => {
    const name = describe(row, index);
    return el('tr', {}, ...fields.map(([field, heading, kind]) => {
      const cellPlace = place + '[' + index + '].' + field;
      const label = heading + ' of ' + name;
      return kind === 'flag' ? flagCell(path, row, field, cellPlace, label) : textCell(path, row, field, cellPlace, label);
    }), removeCell(path, row, name));
  });
  return el('section', {},
    el('h3', { text: title }),
    rows.length ? el('table', {}, el('thead', {}, el('tr', {}, ...headers, el('th', { text: '' }))), el('tbody', {}, ...body))
      : el('p', { text: 'None.' }),
    el('button', { type: 'button', text: 'Add', 'aria-label': 'Add to ' + title,
      onclick: () => {
        const added = rows.length;
        edit({ op: 'add', path, row: newRow });
        renderLayer();
        const input = document.querySelector('[data-place^="' + place + '[' + added + ']."]');
        if (input) input.focus();
      } }));
}

function variableTables(owner, path, place, where) {
  return ['common', 'unix', 'windows'].map((list) => table(
    where + ': ' + list + ' variables', path.concat(['variables', list]), place + 'variables.' + list,
    [['name', 'Name'], ['value', 'Value'], ['comment', 'Comment']], { name: '', value: '', comment: '' },
    (row, index) => (row.name || 'new variable ' + (index + 1)) + ' in the ' + list + ' list of ' + where));
}

function keyValueTable(title, key, place) {
  const values = editing.document[key];
  return el('section', {}, el('h3', { text: title }), el('table', {}, el('tbody', {},
    ...Object.entries(values).map(([name, value]) => el('tr', {}, el('th', { scope: 'row', text: name }),
      el('td', { className: 'value' }, typeof value === 'boolean'
        ? el('input', { type: 'checkbox', checked: value, 'aria-label': name, 'data-place': place + '.' + name,
          onchange: (event) => edit({ op: 'put', path: [key], field: name, value: event.target.checked }) })
        : el('input', { type: 'text', value, 'aria-label': name, 'data-place': place + '.' + name,
          onchange: (event) => edit({ op: 'put', path: [key], field: name, value: event.target.value }) })))))));
}

function renderLayer() {
  const focused = document.activeElement && document.activeElement.dataset ? document.activeElement.dataset.place : null;
  drawLayer();
  const again = focused && document.querySelector('[data-place="' + focused + '"]');
  if (again) again.focus();
}

function drawLayer() {
  const view = $('layer-view');
  const documentValue = editing.document;
  const where = $('layer').selectedOptions[0] ? $('layer').selectedOptions[0].textContent : editing.layer;
  const parts = [el('h2', { text: where })];
  if (documentValue.settings) parts.push(keyValueTable('Site settings', 'settings', 'settings'));
  if (documentValue.members) parts.push(keyValueTable('Members', 'members', 'members'));
  if (documentValue.variables) parts.push(...variableTables(documentValue, [], '', where));
  if (documentValue.applications) {
    parts.push(table('Applications', ['applications'], 'applications',
      [['appId', 'Identifier'], ['description', 'Description'], ['category', 'Category'], ['executable', 'Program'],
        ['arguments', 'Arguments'], ['addNXLibs', 'Libraries in PATH', 'flag'], ['noCustom', 'No custom variables', 'flag'],
        ['disable', 'Disabled', 'flag']],
      { appId: '', description: '', category: '', executable: '', arguments: '', addNXLibs: true, noCustom: false,
        disable: false, variables: { common: [], unix: [], windows: [] } },
      (row, index) => 'application ' + (row.appId || index + 1)));
    documentValue.applications.forEach((application, index) => {
      if (!application.appId) return;
      parts.push(el('details', { className: 'nested' }, el('summary', { text: 'Variables of application ' + application.appId }),
        ...variableTables(application, ['applications', { appId: application.appId }],
          'applications[' + index + '].', 'application ' + application.appId)));
    });
  }
  if (documentValue.workDirectories)
    parts.push(table('Work directories', ['workDirectories'], 'workDirectories', [['name', 'Name'], ['path', 'Path']],
      { name: '', path: '' }, (row, index) => 'work directory ' + (row.name || index + 1)));
  if (documentValue.overlays)
    parts.push(table('Overlays', ['overlays'], 'overlays',
      [['configuration', 'Configuration'], ['appId', 'Application'], ['description', 'Description'],
        ['category', 'Category'], ['disable', 'Disabled', 'flag']],
      { configuration: '', appId: '', description: '', category: '', disable: false },
      (row, index) => 'overlay ' + (row.appId || index + 1)));
  if (documentValue.disabledPlugins)
    parts.push(el('section', {}, el('h3', { text: 'Plugins' }), ...plugins.map((plugin) => el('label', { className: 'layer-list' },
      el('input', { type: 'checkbox', checked: documentValue.disabledPlugins.includes(plugin.name),
        onchange: (event) => edit({ op: 'toggle', path: ['disabledPlugins'], key: plugin.name, on: event.target.checked }) }),
      ' Disable plugin ' + plugin.name, ' '))));
  view.replaceChildren(...parts);
}

// The message of a refused import lists each problem as "  PLACE: TEXT".
function showProblems(message) {
  const box = $('problems');
  const lines = message.split('\n');
  const list = el('ul');
  for (const line of lines.slice(1)) {
    const match = /^\s*([^:\s]+): (.*)$/.exec(line);
    if (!match) continue;
    const [, place, text] = match;
    const field = /Invalid value/.test(text) ? 'value' : /variable name/.test(text) ? 'name'
      : /application identifier/.test(text) ? 'appId' : '';
    const input = document.querySelector('[data-place="' + place + '"]') ||
      (field && document.querySelector('[data-place="' + place + '.' + field + '"]'));
    if (input) {
      input.setAttribute('aria-invalid', 'true');
      const note = el('span', { className: 'cell-error', id: 'error-' + place.replace(/[^a-zA-Z0-9]/g, '-'), text });
      input.setAttribute('aria-describedby', note.id);
      input.after(note);
    }
    list.append(el('li', {}, input ? el('a', { href: '#', text, onclick: (event) => { event.preventDefault(); input.focus(); } })
      : text));
  }
  box.replaceChildren(el('p', { text: lines[0] }), list);
  box.hidden = false;
}

async function save() {
  if (!editing) return;
  $('problems').hidden = true;
  $('conflict').hidden = true;
  renderLayer();
  const saved = editing.edits.length;
  try {
    await post('api/import', { layer: editing.layer, document: editing.document, revision: editing.revision });
    // Edits made while the save was under way are kept for the next one.
    editing.edits = editing.edits.slice(saved);
    await loadLayer(true);
    say($('configure-status'), editing && editing.edits.length ? 'Saved; newer edits are not saved yet.' : 'Saved.');
  } catch (error) {
    if (error.status === 409) {
      $('conflict-text').textContent = 'Another administrator saved this layer after you opened it. Your edits are ' +
        'still here, not saved. Reload to see what they saved, with your edits on top, and save again.';
      $('conflict').hidden = false;
      $('reload-keep').focus();
    } else if (error.status === 422 && error.message.includes('\n')) {
      showProblems(error.message);
    }
    say($('configure-status'), 'Not saved: ' + error.message.split('\n')[0], true);
  }
}

async function doctor() {
  const report = $('doctor-report');
  const [checked, site] = await Promise.all([kym('doctor'), kym('site', 'show')]);
  const layerOf = (file) => {
    const department = departments.find((entry) => file.startsWith(entry.path + '/') || file.startsWith(entry.path + '\\'));
    if (department) return 'dept:' + department.name;
    const plugin = plugins.find((entry) => file.startsWith(entry.path));
    if (plugin) return 'plugin:' + plugin.name;
    if (file === site.file) return 'site';
    if (/baseSettings\.dat$/.test(file)) return 'base';
    if (/sysinfo\.dat$/.test(file)) return 'sysinfo';
    return '';
  };
  report.replaceChildren(el('h2', { text: checked.count ? checked.count + ' problems found' : 'No problems found.' }),
    el('ul', {}, ...checked.problems.map((problem) => {
      const layer = layerOf(problem.file);
      return el('li', {}, layer ? el('a', { href: '#', text: problem.file,
        onclick: (event) => {
          event.preventDefault();
          if (!mayDropEdits()) return;
          $('layer').value = layer;
          loadLayer(false);
        } }) : problem.file,
      ': ' + problem.message);
    })));
  report.hidden = false;
}

// Unsaved edits are dropped only when the user says so.
let layerShown = '';
function mayDropEdits() {
  return !editing || !editing.edits.length ||
    window.confirm('Your edits of ' + editing.layer + ' are not saved. Drop them?');
}
$('layer').addEventListener('focus', () => { layerShown = $('layer').value; });
$('layer').addEventListener('change', () => {
  if (mayDropEdits()) {
    layerShown = $('layer').value;
    loadLayer(false);
  } else {
    $('layer').value = layerShown;
  }
});
$('save').addEventListener('click', save);
$('reload').addEventListener('click', () => { if (mayDropEdits()) loadLayer(false); });
$('reload-keep').addEventListener('click', () => loadLayer(true));
$('doctor').addEventListener('click', () => doctor().catch((error) => say($('configure-status'), error.message, true)));

// Departments and plugins: each form runs one command, then the lists are read again.
function onSubmit(id, command) {
  $(id).addEventListener('submit', async (event) => {
    event.preventDefault();
    const form = event.target;
    try {
      await kym(...command(new FormData(form)));
      say($('configure-status'), 'Done: ' + form.querySelector('legend').textContent + '.');
      form.reset();
      await loadSite();
      await loadLayer(true);
    } catch (error) {
      say($('configure-status'), error.message, true);
    }
  });
}
onSubmit('create-department', (data) => ['dept', 'create', data.get('name'), '--description', data.get('description'),
  '--type', data.get('type'), ...(data.get('common') ? ['--common', data.get('common')] : [])]);
onSubmit('rename-department', (data) => ['dept', 'rename', data.get('name'), data.get('newName')]);
onSubmit('delete-department', (data) => ['dept', 'delete', data.get('name'), '--yes',
  ...(data.get('force') ? ['--force'] : [])]);
onSubmit('create-plugin', (data) => ['plugin', 'create', data.get('name'), '--type', data.get('type'),
  '--external', data.get('external') ? 'on' : 'off']);
onSubmit('rename-plugin', (data) => ['plugin', 'rename', data.get('name'), data.get('newName')]);
onSubmit('delete-plugin', (data) => ['plugin', 'delete', data.get('name'), '--yes']);

openPage().catch((error) => say($('launch-result'), error.message, true));
