// The editor's page: the image on a canvas with zoom and pan, the filter
// menu with the module's own dialogs and their previews, apply with progress
// and Stop, open, save, undo and redo. Every request carries the access token
// in the cookie the server set with the page; what happens on the server
// (previews drawn, progress) arrives as server-sent events.

const $ = (id) => document.getElementById(id);
const canvas = $('canvas');
const view = $('view');
const status = $('status');

const state = {
  image: null,  // { name, width, height, components, alpha, type }
  undo: 0,
  redo: 0,
  zoom: 1,
  fit: true,
  panX: 0,
  panY: 0,
  busy: false,
  dialog: null,  // { filter, gadgets }
};

async function api(path, options = {}) {
  const response = await fetch(path, { credentials: 'same-origin', ...options });
  if (!response.ok) {
    let message = `${response.status} ${response.statusText}`;
    try { message = (await response.json()).error || message; } catch { /* not JSON */ }
    throw new Error(message);
  }
  return response;
}

function showStatus(text, error = false) {
  status.textContent = text;
  status.classList.toggle('error', error);
}

function describe() {
  if (!state.image) return 'No image';
  const { name, width, height, type, components, alpha } = state.image;
  const channels = alpha ? `${components - 1} colour + alpha` : `${components} channel${components > 1 ? 's' : ''}`;
  return `${name} — ${width} × ${height}, ${type}, ${channels} — ${Math.round(state.zoom * 100)} %`;
}

function refreshStatus() {
  showStatus(describe());
  $('undo').disabled = !state.undo;
  $('redo').disabled = !state.redo;
  $('save').disabled = !state.image;
  $('drop-hint').hidden = !!state.image;
}

function takeState(json) {
  state.image = json.image;
  state.undo = json.undo || 0;
  state.redo = json.redo || 0;
  state.busy = !!json.busy;
}

// ---- the canvas ----

function place() {
  canvas.style.transform = `translate(${state.panX}px, ${state.panY}px) scale(${state.zoom})`;
  refreshStatus();
}

function zoomToFit() {
  if (!state.image) return;
  const { width, height } = state.image;
  const box = view.getBoundingClientRect();
  state.zoom = Math.min(1, box.width / width, box.height / height);
  state.panX = (box.width - width * state.zoom) / 2;
  state.panY = (box.height - height * state.zoom) / 2;
  state.fit = true;
  place();
}

// Zooms by `factor` keeping the image point under (x, y) where it is.
function zoomAt(factor, x, y) {
  const zoom = Math.min(32, Math.max(1 / 64, state.zoom * factor));
  state.panX = x - (x - state.panX) * (zoom / state.zoom);
  state.panY = y - (y - state.panY) * (zoom / state.zoom);
  state.zoom = zoom;
  state.fit = false;
  place();
}

// Draws 8-bit RGBA pixels from the server into a canvas of their size,
// unless `wanted` says by then that they are no longer wanted.
async function drawInto(target, path, wanted = () => true) {
  const response = await api(path);
  const width = Number(response.headers.get('X-Width'));
  const height = Number(response.headers.get('X-Height'));
  const bytes = new Uint8ClampedArray(await response.arrayBuffer());
  if (!wanted()) return;
  target.width = width;
  target.height = height;
  target.getContext('2d').putImageData(new ImageData(bytes, width, height), 0, 0);
  target.dataset.revision = String(Number(target.dataset.revision || 0) + 1);
}

async function loadPixels() {
  if (!state.image) {
    canvas.width = canvas.height = 0;
    refreshStatus();
    return;
  }
  await drawInto(canvas, '/api/pixels');
  canvas.dataset.shows = 'image';
}

async function reload(json, refit = false) {
  takeState(json);
  await loadPixels();
  if (refit || state.fit) zoomToFit(); else place();
}

view.addEventListener('wheel', (event) => {
  if (!state.image) return;
  event.preventDefault();
  const box = view.getBoundingClientRect();
  zoomAt(Math.pow(1.0015, -event.deltaY), event.clientX - box.left, event.clientY - box.top);
}, { passive: false });

let drag = null;
view.addEventListener('pointerdown', (event) => {
  if (!state.image || event.button !== 0) return;
  drag = { x: event.clientX - state.panX, y: event.clientY - state.panY };
  view.setPointerCapture(event.pointerId);
});
view.addEventListener('pointermove', (event) => {
  if (!drag) return;
  state.panX = event.clientX - drag.x;
  state.panY = event.clientY - drag.y;
  state.fit = false;
  place();
});
view.addEventListener('pointerup', () => { drag = null; });
window.addEventListener('resize', () => { if (state.fit) zoomToFit(); });

$('zoom-fit').addEventListener('click', zoomToFit);
$('zoom-100').addEventListener('click', () => {
  const box = view.getBoundingClientRect();
  zoomAt(1 / state.zoom, box.width / 2, box.height / 2);
});

// ---- open, save, undo ----

async function openFile(file) {
  showStatus(`Opening ${file.name}…`);
  try {
    const response = await api(`/api/open?name=${encodeURIComponent(file.name)}`, {
      method: 'POST',
      headers: { 'Content-Type': 'application/octet-stream' },
      body: file,
    });
    await reload(await response.json(), true);
  } catch (error) {
    showStatus(`Cannot open ${file.name}: ${error.message}`, true);
  }
}

$('open-file').addEventListener('change', (event) => {
  const [file] = event.target.files;
  if (file) openFile(file);
  event.target.value = '';
});

view.addEventListener('dragover', (event) => { event.preventDefault(); view.classList.add('dragging'); });
view.addEventListener('dragleave', () => view.classList.remove('dragging'));
view.addEventListener('drop', (event) => {
  event.preventDefault();
  view.classList.remove('dragging');
  const [file] = event.dataTransfer.files;
  if (file) openFile(file);
});

$('save').addEventListener('click', () => {
  if (!$('save-path').value && state.image) $('save-path').value = state.image.name;
  $('save-dialog').showModal();
});
$('save-dialog').addEventListener('close', async () => {
  if ($('save-dialog').returnValue !== 'save') return;
  const path = $('save-path').value.trim();
  if (!path) return;
  showStatus(`Saving ${path}…`);
  try {
    const response = await api('/api/save', { method: 'POST', body: JSON.stringify({ path }) });
    const { saved } = await response.json();
    showStatus(`Saved ${saved}`);
  } catch (error) {
    showStatus(`Not saved: ${error.message}`, true);
  }
});

async function step(which) {
  try {
    await reload(await (await api(`/api/${which}`, { method: 'POST' })).json());
  } catch (error) {
    showStatus(error.message, true);
  }
}
$('undo').addEventListener('click', () => step('undo'));
$('redo').addEventListener('click', () => step('redo'));
window.addEventListener('keydown', (event) => {
  if (!(event.ctrlKey || event.metaKey) || state.dialog) return;
  const key = event.key.toLowerCase();
  if (key === 'z') {
    event.preventDefault();
    step(event.shiftKey ? 'redo' : 'undo');
  } else if (key === 'f') {
    event.preventDefault();
    repeatFilter();
  }
});

// ---- filters ----

const families = ['tonal', 'convolution', 'blur', 'distortion', 'noise and clean-up'];

// ---- progress ----

function showProgress(caption, done, total) {
  $('progress').hidden = false;
  $('progress-caption').textContent = caption || 'Working…';
  $('progress-bar').max = Math.max(1, total);
  $('progress-bar').value = done;
}

$('stop').addEventListener('click', () => api('/api/stop', { method: 'POST' }).catch(() => {}));

async function applied(event) {
  $('progress').hidden = true;
  try {
    await reload(await (await api('/api/state')).json());
  } catch (error) {
    return showStatus(error.message, true);
  }
  if (event.error) showStatus(`${event.filter}: ${event.error}`, true);
  document.body.dataset.applied = String(Number(document.body.dataset.applied || 0) + 1);
}

async function repeatFilter() {
  if (state.busy) return;
  try {
    await api('/api/repeat', { method: 'POST' });
    state.busy = true;
    showProgress('', 0, 1);
  } catch (error) {
    showStatus(error.message, true);
  }
}

// ---- the module's dialogs ----

const dialogPanel = $('filter-dialog');

function gadgetLabel(gadget) {
  return gadget.label || gadget.name.replace(/_/g, ' ');
}

// One control per gadget, as the module made them: number fields with
// sliders, check boxes, choices, groups (the matrix's cells as a grid) and
// user areas (the preview).
function controlFor(gadget) {
  const row = document.createElement('div');
  row.className = `gadget ${gadget.kind}`;
  row.dataset.gadget = gadget.name;
  if (gadget.kind === 'group') {
    const heading = document.createElement('h4');
    heading.textContent = gadgetLabel(gadget);
    row.append(heading);
    return row;
  }
  if (gadget.kind === 'userarea') {
    const area = document.createElement('canvas');
    area.className = 'preview';
    area.dataset.gadgetId = String(gadget.id);
    row.append(area);
    return row;
  }
  const label = document.createElement('label');
  label.textContent = gadgetLabel(gadget);
  row.append(label);
  const send = (value) => changeGadget(gadget.name, String(value));
  if (gadget.kind === 'check') {
    const box = document.createElement('input');
    box.type = 'checkbox';
    box.name = gadget.name;
    box.checked = gadget.value !== 0;
    box.addEventListener('change', () => send(box.checked ? 1 : 0));
    label.prepend(box);
    return row;
  }
  if (gadget.kind === 'choice') {
    const select = document.createElement('select');
    select.name = gadget.name;
    gadget.choices.forEach((choice, index) => select.add(new Option(choice, String(index))));
    select.value = String(gadget.value);
    select.addEventListener('change', () => send(select.value));
    row.append(select);
    return row;
  }
  const number = document.createElement('input');
  number.type = 'number';
  number.name = gadget.name;
  number.min = gadget.min;
  number.max = gadget.max;
  number.step = gadget.step > 0 ? gadget.step : 'any';
  number.value = gadget.value;
  const unit = document.createElement('span');
  unit.className = 'unit';
  unit.textContent = gadget.unit || '';
  if (gadget.max > gadget.min && !gadget.name.match(/_\d+$/)) {
    const slider = document.createElement('input');
    slider.type = 'range';
    slider.min = gadget.min;
    slider.max = gadget.max;
    slider.step = gadget.step > 0 ? gadget.step : 'any';
    slider.value = gadget.value;
    slider.addEventListener('input', () => { number.value = slider.value; });
    slider.addEventListener('change', () => send(slider.value));
    number.addEventListener('input', () => { slider.value = number.value; });
    row.append(slider);
  }
  number.addEventListener('change', () => send(number.value));
  row.append(number, unit);
  return row;
}

function renderGadgets(gadgets) {
  const form = $('gadgets');
  form.replaceChildren(...gadgets.map(controlFor));
}

// Shows the values the module holds now (clamped, or changed by a Command);
// a dialog whose gadgets were rebuilt is drawn anew.
function updateGadgets(gadgets) {
  const names = gadgets.map((g) => g.name).join();
  if (names !== state.dialog.gadgets.map((g) => g.name).join()) {
    state.dialog.gadgets = gadgets;
    return renderGadgets(gadgets);
  }
  state.dialog.gadgets = gadgets;
  for (const gadget of gadgets) {
    const row = $('gadgets').querySelector(`[data-gadget="${gadget.name}"]`);
    if (!row || gadget.value === undefined) continue;
    for (const input of row.querySelectorAll('input, select')) {
      if (input.type === 'checkbox') input.checked = gadget.value !== 0;
      else if (document.activeElement !== input) input.value = gadget.value;
    }
  }
}

let changes = Promise.resolve();
function changeGadget(gadget, value) {
  // One change at a time, in the order they were made.
  changes = changes.then(async () => {
    if (!state.dialog) return;
    try {
      const response = await api('/api/dialog/change', {
        method: 'POST',
        body: JSON.stringify({ gadget, value }),
      });
      updateGadgets((await response.json()).gadgets);
      dialogPanel.dataset.changes = String(Number(dialogPanel.dataset.changes || 0) + 1);
    } catch (error) {
      showStatus(`${gadget}: ${error.message}`, true);
    }
  });
  return changes;
}

async function chooseFilter(filter) {
  $('filters').hidden = true;
  if (!state.image) return showStatus('Open an image first', true);
  if (state.dialog || state.busy) return;
  try {
    const response = await api('/api/filter', { method: 'POST', body: JSON.stringify({ filter: filter.key }) });
    const opened = await response.json();
    if (opened.applying) {
      state.busy = true;
      return showProgress(filter.name, 0, 1);
    }
    state.dialog = { filter, gadgets: opened.gadgets };
    $('dialog-title').textContent = filter.name;
    renderGadgets(opened.gadgets);
    dialogPanel.dataset.filter = filter.key;
    dialogPanel.dataset.changes = '0';
    dialogPanel.show();
    // What was drawn before the dialog was on the page.
    for (const area of $('gadgets').querySelectorAll('canvas.preview')) showPreview(Number(area.dataset.gadgetId));
    const first = $('gadgets').querySelector('input, select');
    if (first) first.focus();
  } catch (error) {
    showStatus(`${filter.name}: ${error.message}`, true);
  }
}

async function closeDialog(confirm) {
  if (!state.dialog) return;
  await changes;
  const { filter } = state.dialog;
  state.dialog = null;
  dialogPanel.close();
  try {
    const response = await api(`/api/dialog/${confirm ? 'confirm' : 'cancel'}`, { method: 'POST' });
    const closed = await response.json();
    if (closed.applying) {
      state.busy = true;
      showProgress(filter.name, 0, 1);
    } else {
      await loadPixels();  // the image view as it is
      showStatus(describe());
    }
  } catch (error) {
    showStatus(`${filter.name}: ${error.message}`, true);
  }
}

$('dialog-ok').addEventListener('click', () => closeDialog(true));
$('dialog-reset').addEventListener('click', async () => {
  if (!state.dialog) return;
  await changes;
  try {
    const response = await api('/api/dialog/reset', { method: 'POST' });
    state.dialog.gadgets = (await response.json()).gadgets;
    renderGadgets(state.dialog.gadgets);
    dialogPanel.dataset.changes = String(Number(dialogPanel.dataset.changes || 0) + 1);
    for (const area of $('gadgets').querySelectorAll('canvas.preview')) showPreview(Number(area.dataset.gadgetId));
  } catch (error) {
    showStatus(`Reset: ${error.message}`, true);
  }
});
$('dialog-cancel').addEventListener('click', () => closeDialog(false));
dialogPanel.addEventListener('keydown', (event) => {
  if (event.key === 'Escape') {
    event.preventDefault();
    closeDialog(false);
  } else if (event.key === 'Enter' && event.target.tagName !== 'BUTTON') {
    event.preventDefault();
    // The field's own change goes first.
    event.target.dispatchEvent(new Event('change'));
    closeDialog(true);
  }
});

// ---- what the server tells ----

// Runs `fetch` for a notice; notices that come while it runs make one more
// run afterwards, not one each, so a burst costs at most two fetches.
function coalesced(fetch) {
  let running = false;
  let again = false;
  return async function run() {
    if (running) {
      again = true;
      return;
    }
    running = true;
    try {
      do {
        again = false;
        await fetch().catch(() => {});
      } while (again);
    } finally {
      running = false;
    }
  };
}

const previewFetches = new Map();
function showPreview(gadget) {
  if (!previewFetches.has(gadget)) {
    previewFetches.set(gadget, coalesced(async () => {
      const area = $('gadgets').querySelector(`canvas[data-gadget-id="${gadget}"]`);
      if (!area || !state.dialog) return;
      const opened = state.dialog;
      await drawInto(area, `/api/dialog/preview/${gadget}`, () => state.dialog === opened);
    }));
  }
  previewFetches.get(gadget)();
}

let viewFiltered = false;
const showView = coalesced(async () => {
  if (!state.dialog) return;
  const opened = state.dialog;
  if (!viewFiltered) return loadPixels();
  await drawInto(canvas, '/api/dialog/view', () => state.dialog === opened);
  if (state.dialog === opened) canvas.dataset.shows = 'preview';
});

function listen() {
  const events = new EventSource('/api/events');
  events.addEventListener('preview', (message) => showPreview(JSON.parse(message.data).gadget));
  events.addEventListener('view', (message) => {
    viewFiltered = JSON.parse(message.data).filtered;
    showView();
  });
  events.addEventListener('progress', (message) => {
    const { caption, done, total } = JSON.parse(message.data);
    showProgress(caption, done, total);
  });
  events.addEventListener('applied', (message) => applied(JSON.parse(message.data)));
}

async function buildMenu() {
  const filters = await (await api('/api/filters')).json();
  const list = $('filters');
  list.replaceChildren();
  for (const family of families) {
    const heading = document.createElement('h3');
    heading.textContent = family;
    list.append(heading);
    for (const filter of filters.filter((f) => f.family === family)) {
      const item = document.createElement('button');
      item.textContent = filter.name;
      item.dataset.filter = filter.key;
      item.disabled = !filter.available;
      item.addEventListener('click', () => chooseFilter(filter));
      list.append(item);
    }
  }
}

$('filters-button').addEventListener('click', () => { $('filters').hidden = !$('filters').hidden; });
document.addEventListener('click', (event) => {
  if (!$('filter-menu').contains(event.target)) $('filters').hidden = true;
});

async function start() {
  try {
    await buildMenu();
    listen();
    await reload(await (await api('/api/state')).json(), true);
    document.body.dataset.ready = 'true';
  } catch (error) {
    showStatus(`The editor could not start: ${error.message}`, true);
  }
}

start();
