// The editor's page: the image on a canvas with zoom and pan, the filter
// menu, open, save, undo and redo. Every request carries the access token in
// the cookie the server set with the page.

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

async function loadPixels() {
  if (!state.image) {
    canvas.width = canvas.height = 0;
    refreshStatus();
    return;
  }
  const response = await api('/api/pixels');
  const width = Number(response.headers.get('X-Width'));
  const height = Number(response.headers.get('X-Height'));
  const bytes = new Uint8ClampedArray(await response.arrayBuffer());
  canvas.width = width;
  canvas.height = height;
  canvas.getContext('2d').putImageData(new ImageData(bytes, width, height), 0, 0);
  canvas.dataset.revision = String(Number(canvas.dataset.revision || 0) + 1);
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
  if (!(event.ctrlKey || event.metaKey) || event.key.toLowerCase() !== 'z') return;
  event.preventDefault();
  step(event.shiftKey ? 'redo' : 'undo');
});

// ---- filters ----

const families = ['tonal', 'convolution', 'blur', 'distortion', 'noise and clean-up'];

async function applyFilter(filter) {
  $('filters').hidden = true;
  if (!state.image) return showStatus('Open an image first', true);
  showStatus(`${filter.name}…`);
  try {
    const response = await api('/api/apply', { method: 'POST', body: JSON.stringify({ filter: filter.key }) });
    await reload(await response.json());
  } catch (error) {
    showStatus(`${filter.name}: ${error.message}`, true);
  }
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
      // Settings dialogs come with the next stage; filters without one apply now.
      item.disabled = !filter.available || filter.dialog;
      item.addEventListener('click', () => applyFilter(filter));
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
    await reload(await (await api('/api/state')).json(), true);
    document.body.dataset.ready = 'true';
  } catch (error) {
    showStatus(`The editor could not start: ${error.message}`, true);
  }
}

start();
