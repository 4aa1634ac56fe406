// tevix viewer page. Frames arrive on one long response (/api/stream) as binary messages:
//   0 "TVXF", 4 u32 total length, 8 u32 width, 12 u32 height, 16 u32 camera frame index,
//   20 u32 recording position, 24 f64 pull time (ms since 1970), 32 f64 camera time (s),
//   40 f32 board and 44 f32 sensor temperature (C), 48 u32 sequence, 52 u32 format,
//   64 u16 depth[w*h] (mm, 65500 invalid), then u16 infrared[w*h].
// The page keeps only the newest frame and draws it at the next animation frame; after drawing it
// acknowledges what it has read (/api/ack), which lets the server send the next one.
'use strict';

const token = new URLSearchParams(location.search).get('token') || '';
const withToken = (url) => token ? url + (url.includes('?') ? '&' : '?') + 'token=' + token : url;

// Figures the browser test reads.
window.tevixStats = { frames: 0, painted: 0, latency: [], lastIndex: -1, errors: 0, size: '' };

let latest = null;       // newest frame not drawn yet
let shown = null;        // the frame on screen (for the distance under the cursor)
let palette = null;      // 256 RGB entries
let state = null;

function message(text) {
  document.getElementById('message').textContent = text;
}

async function post(path, params) {
  const body = new URLSearchParams(params);
  const r = await fetch(withToken(path + '?' + body.toString()), { method: 'POST' });
  const j = await r.json().catch(() => ({ ok: false, error: 'HTTP ' + r.status }));
  if (!r.ok) {
    message(j.error || ('HTTP ' + r.status));
    throw new Error(j.error || r.status);
  }
  message('');
  return j;
}

async function loadPalette(id) {
  const r = await fetch(withToken('/api/palette?id=' + id));
  palette = new Uint8Array(await r.arrayBuffer());
}

// One frame message, in a buffer of its own: a 64-byte header, then depth and IR, u16 each.
function parse(buf) {
  const v = new DataView(buf.buffer, buf.byteOffset);
  const w = v.getUint32(8, true), h = v.getUint32(12, true);
  const n = w * h;
  return {
    w, h,
    index: v.getUint32(16, true),
    position: v.getUint32(20, true),
    pulled: v.getFloat64(24, true),
    board: v.getFloat32(40, true),
    sensor: v.getFloat32(44, true),
    depth: new Uint16Array(buf.buffer, buf.byteOffset + 64, n),
    ir: new Uint16Array(buf.buffer, buf.byteOffset + 64 + 2 * n, n),
  };
}

// The stream's chunks, queued as they come: each byte is copied once, into the frame it belongs
// to (joining each chunk onto the unread rest would copy a 640x480 frame many times over).
class chunkQueue {
  constructor() { this.chunks = []; this.length = 0; }
  push(c) { this.chunks.push(c); this.length += c.length; }
  peekU32(at) {
    const b = new Uint8Array(4);
    let i = 0, skip = at;
    for (const c of this.chunks) {
      for (let k = skip; k < c.length && i < 4; ++k) b[i++] = c[k];
      skip = Math.max(0, skip - c.length);
      if (i === 4) break;
    }
    return new DataView(b.buffer).getUint32(0, true);
  }
  take(n) {
    const out = new Uint8Array(n);
    for (let o = 0; o < n;) {
      const c = this.chunks[0], k = Math.min(c.length, n - o);
      out.set(c.subarray(0, k), o);
      o += k;
      if (k === c.length) this.chunks.shift(); else this.chunks[0] = c.subarray(k);
    }
    this.length -= n;
    return out;
  }
}

// The stream being read: the server sends a page its next frame once the page has read all but
// one of those it was sent, so the page tells it, at each paint, how many it has read.
let feed = null;
function ack() {
  if (!feed || !feed.id || feed.read === feed.acked) return;
  feed.acked = feed.read;
  fetch(withToken('/api/ack?stream=' + feed.id + '&frames=' + feed.read), { method: 'POST' })
    .catch(() => {});
}

async function stream() {
  for (;;) {
    try {
      const r = await fetch(withToken('/api/stream'));
      if (!r.ok) throw new Error('stream: HTTP ' + r.status);
      const reader = r.body.getReader();
      const q = new chunkQueue();
      feed = { id: r.headers.get('X-Tevix-Stream'), read: 0, acked: 0 };
      for (;;) {
        const { value, done } = await reader.read();
        if (done) break;
        q.push(value);
        while (q.length >= 64) {
          const total = q.peekU32(4);
          if (total < 64) throw new Error('stream: bad frame length ' + total);
          if (q.length < total) break;
          latest = parse(q.take(total));
          window.tevixStats.frames++;
          feed.read++;
        }
      }
    } catch (e) {
      window.tevixStats.errors++;
      message(String(e.message || e));
    }
    await new Promise((ok) => setTimeout(ok, 500));
  }
}

function drawDepth(f) {
  const c = document.getElementById('depth');
  if (c.width !== f.w || c.height !== f.h) { c.width = f.w; c.height = f.h; }
  const ctx = c.getContext('2d');
  const img = ctx.createImageData(f.w, f.h);
  const lo = +document.getElementById('rmin').value, hi = Math.max(lo + 1, +document.getElementById('rmax').value);
  const scale = 255 / (hi - lo);
  const px = img.data;
  for (let i = 0, j = 0; i < f.depth.length; ++i, j += 4) {
    const d = f.depth[i];
    if (d === 0 || d >= 65500 || !palette) { px[j] = px[j + 1] = px[j + 2] = 0; px[j + 3] = 255; continue; }
    const k = Math.max(0, Math.min(255, Math.round((d - lo) * scale))) * 3;
    px[j] = palette[k]; px[j + 1] = palette[k + 1]; px[j + 2] = palette[k + 2]; px[j + 3] = 255;
  }
  ctx.putImageData(img, 0, 0);
}

function drawIr(f) {
  const c = document.getElementById('ir');
  if (c.width !== f.w || c.height !== f.h) { c.width = f.w; c.height = f.h; }
  const ctx = c.getContext('2d');
  const img = ctx.createImageData(f.w, f.h);
  let sum = 0;
  for (let i = 0; i < f.ir.length; ++i) sum += f.ir[i];
  const gain = +document.getElementById('gain').value * 64 / Math.max(1, sum / f.ir.length);
  const px = img.data;
  for (let i = 0, j = 0; i < f.ir.length; ++i, j += 4) {
    const g = Math.min(255, f.ir[i] * gain);
    px[j] = px[j + 1] = px[j + 2] = g; px[j + 3] = 255;
  }
  ctx.putImageData(img, 0, 0);
}

// The point cloud in three.js, from the depth image and the lens intrinsics.
const cloud = { ok: false };
function initCloud() {
  if (window.noThree || typeof THREE === 'undefined') {
    document.getElementById('points-note').textContent = 'three.js is not installed (libjs-three)';
    return;
  }
  const el = document.getElementById('points');
  cloud.renderer = new THREE.WebGLRenderer({ antialias: false, preserveDrawingBuffer: true });
  cloud.renderer.setSize(420, 315);
  el.appendChild(cloud.renderer.domElement);
  cloud.scene = new THREE.Scene();
  cloud.camera = new THREE.PerspectiveCamera(60, 420 / 315, 0.01, 100);
  cloud.camera.position.set(0, 0, -0.5);
  cloud.camera.up.set(0, -1, 0);
  cloud.controls = new THREE.OrbitControls(cloud.camera, cloud.renderer.domElement);
  cloud.controls.target.set(0, 0, 2.5);
  cloud.controls.update();
  cloud.geometry = new THREE.BufferGeometry();
  cloud.material = new THREE.PointsMaterial({ size: 0.01, vertexColors: true });
  cloud.points = new THREE.Points(cloud.geometry, cloud.material);
  cloud.scene.add(cloud.points);
  cloud.ok = true;
}

// At most about 320x240 points: larger frames are shown at every second (third...) pixel, which
// the eye cannot tell apart at the view's size, and software WebGL keeps up.
const k_cloud_points = 320 * 240;

function drawCloud(f) {
  if (!cloud.ok || !state) return;
  const step = Math.max(1, Math.round(Math.sqrt(f.w * f.h / k_cloud_points)));
  const cw = Math.ceil(f.w / step), ch = Math.ceil(f.h / step), n = cw * ch;
  if (!cloud.pos || cloud.pos.length !== 3 * n) {
    cloud.pos = new Float32Array(3 * n);
    cloud.col = new Float32Array(3 * n);
    cloud.geometry.setAttribute('position', new THREE.BufferAttribute(cloud.pos, 3));
    cloud.geometry.setAttribute('color', new THREE.BufferAttribute(cloud.col, 3));
  }
  const L = state.lens, sx = L.width ? L.width / f.w : 1, sy = L.height ? L.height / f.h : 1;
  const cx = L.cx / sx, cy = L.cy / sy, fx = L.fx / sx, fy = L.fy / sy;
  const lo = +document.getElementById('rmin').value, hi = Math.max(lo + 1, +document.getElementById('rmax').value);
  let k = 0;
  for (let v = 0; v < f.h; v += step) {
    for (let u = 0; u < f.w; u += step, ++k) {
      const d = f.depth[v * f.w + u];
      if (d === 0 || d >= 65500) { cloud.pos[3 * k + 2] = NaN; continue; }
      // Distance along the ray to x, y, z.
      const x = (u - cx) / fx, y = (v - cy) / fy, m = d / 1000 / Math.sqrt(1 + x * x + y * y);
      cloud.pos[3 * k] = x * m; cloud.pos[3 * k + 1] = y * m; cloud.pos[3 * k + 2] = m;
      const c = palette ? Math.max(0, Math.min(255, Math.round((d - lo) * 255 / (hi - lo)))) * 3 : 0;
      cloud.col[3 * k] = palette ? palette[c] / 255 : 1;
      cloud.col[3 * k + 1] = palette ? palette[c + 1] / 255 : 1;
      cloud.col[3 * k + 2] = palette ? palette[c + 2] / 255 : 1;
    }
  }
  cloud.geometry.attributes.position.needsUpdate = true;
  cloud.geometry.attributes.color.needsUpdate = true;
  cloud.renderer.render(cloud.scene, cloud.camera);
}

function paint() {
  const f = latest;
  latest = null;
  if (f) {
    drawDepth(f);
    drawIr(f);
    drawCloud(f);
    shown = f;
    const st = window.tevixStats;
    st.painted++;
    st.lastIndex = f.index;
    st.size = f.w + 'x' + f.h;
    st.latency.push(Date.now() - f.pulled);
    if (st.latency.length > 100) st.latency.shift();
    if (state && state.is_file) document.getElementById('seek').value = f.position;
    ack();
  } else if (cloud.ok) {
    cloud.renderer.render(cloud.scene, cloud.camera);
  }
  requestAnimationFrame(paint);
}

function median(a) {
  if (!a.length) return 0;
  const s = a.slice().sort((x, y) => x - y);
  return s[s.length >> 1];
}

async function poll() {
  try {
    const r = await fetch(withToken('/api/state'));
    state = await r.json();
    const st = window.tevixStats;
    document.getElementById('camera').textContent =
      `${state.product} ${state.serial} (${state.driver}) ${state.uri}`;
    document.getElementById('readout').textContent =
      `${state.fps_measured.toFixed(1)} fps  frame #${st.lastIndex}  drops ${state.drops}  ` +
      `board ${state.board_c.toFixed(1)} C  sensor ${state.sensor_c.toFixed(1)} C  ` +
      `latency ${median(st.latency)} ms`;
    const fps = document.getElementById('fps');
    if (!fps.options.length) {
      const max = state.limits.fps_max;
      for (const v of [1, 2, 5, 10, 15, 20, 25, 30, 45, 60, 90, 120].filter((x) => x <= max))
        fps.add(new Option(v + ' fps', v));
      document.getElementById('intg').max = state.limits.intg_max;
    }
    if (document.activeElement !== fps) fps.value = state.params.FPS;
    const intg = document.getElementById('intg');
    if (document.activeElement !== intg) intg.value = state.params.INTG1;
    const intg2 = document.getElementById('intg2');
    intg2.max = state.limits.intg_max;
    if (document.activeElement !== intg2) intg2.value = state.params.INTG2;
    const modf = document.getElementById('modf');
    // The frequencies the camera's calibration covers come first, marked; then the current one.
    for (const f of state.calib_freqs.concat([state.params.MOD_FREQ])) {
      if (!f) continue;
      let o = [...modf.options].find((x) => +x.value === f);
      if (!o) modf.add(o = new Option(f / 1e6 + ' MHz', f));
      if (state.calib_freqs.includes(f) && !o.text.endsWith(' (calibrated)')) o.text += ' (calibrated)';
    }
    modf.value = state.params.MOD_FREQ;
    for (const box of document.querySelectorAll('[data-filter]'))
      box.checked = !!state.filters[box.dataset.filter];
    document.getElementById('camera-controls').disabled = state.is_file;
    document.getElementById('record').textContent = state.recording ? 'stop' : 'record';
    document.getElementById('record-state').textContent = state.recording ? 'recording to ' + state.record_file : '';
    const pb = document.getElementById('playback');
    pb.hidden = !state.is_file;
    if (state.is_file) {
      document.getElementById('play').textContent = state.playback.playing ? 'pause' : 'play';
      document.getElementById('seek').max = Math.max(0, state.playback.count - 1);
      document.getElementById('loop').checked = state.playback.loop;
    }
  } catch (e) {
    message('state: ' + (e.message || e));
  }
  setTimeout(poll, 500);
}

function wire() {
  const pal = document.getElementById('palette');
  [['0', 'rainbow'], ['1', 'palette 1'], ['2', 'palette 2'], ['3', 'palette 3'], ['35', 'grey']]
    .forEach(([v, t]) => pal.add(new Option(t, v)));
  pal.addEventListener('change', () => loadPalette(pal.value));
  const setParam = (name, value) => post('/api/param', { name, value }).catch(() => {});
  document.getElementById('fps').addEventListener('change', (e) => setParam('FPS', e.target.value));
  document.getElementById('intg').addEventListener('change', (e) => setParam('INTG1', e.target.value));
  document.getElementById('intg2').addEventListener('change', (e) => setParam('INTG2', e.target.value));
  document.getElementById('modf').addEventListener('change', (e) => setParam('MOD_FREQ', e.target.value));
  document.getElementById('binning').addEventListener('change', (e) => setParam('BINNING', e.target.value));
  for (const box of document.querySelectorAll('[data-filter]')) {
    box.addEventListener('change', () => {
      const p = { name: box.dataset.filter, on: box.checked ? 1 : 0 };
      if (box.dataset.value) p.value = box.dataset.value;
      post('/api/filter', p).catch(() => {});
    });
  }
  document.getElementById('record').addEventListener('click', () =>
    post('/api/record', { action: state && state.recording ? 'stop' : 'start' }).catch(() => {}));
  document.getElementById('play').addEventListener('click', () =>
    post('/api/playback', { action: state && state.playback.playing ? 'pause' : 'play' }).catch(() => {}));
  document.getElementById('seek').addEventListener('change', (e) =>
    post('/api/playback', { action: 'seek', frame: e.target.value }).catch(() => {}));
  document.getElementById('loop').addEventListener('change', (e) =>
    post('/api/playback', { action: 'loop', on: e.target.checked ? 1 : 0 }).catch(() => {}));
  document.getElementById('depth').addEventListener('mousemove', (e) => {
    if (!shown) return;
    const c = e.target, rect = c.getBoundingClientRect();
    const u = Math.floor((e.clientX - rect.left) * shown.w / rect.width);
    const v = Math.floor((e.clientY - rect.top) * shown.h / rect.height);
    const d = shown.depth[v * shown.w + u];
    document.getElementById('under').textContent =
      `(${u}, ${v}): ` + (d === 0 || d >= 65500 ? 'no measurement' : d + ' mm');
  });
}

wire();
initCloud();
loadPalette(0);
poll();
stream();
requestAnimationFrame(paint);
