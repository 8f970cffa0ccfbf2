// The live view's page: the cloud as the server sends it (three.js), the scanner's pose and the
// trackers as small frames, the scan's figures, and its state. The server's protocol is in
// view/src/Server.cpp and view/README.md.
//
// window.pathfinderView holds the page's counters (points received, what the server says it
// sent, mismatches between the two, the state), so that a test can read them.
'use strict';

(function () {
  const view = {
    state: 'connecting', received: 0, sent: 0, cloud: 0, frames: 0, mismatches: 0,
    messages: 0, voxel: 0, colour: 'height', scale: [0, 1], colours: null, webgl: false,
    summary: null, probe: null,
  };
  window.pathfinderView = view;
  const $ = (id) => document.getElementById(id);

  // ---- scene ----------------------------------------------------------------------------------
  const box = $('scene');
  let renderer = null;
  try {
    renderer = new THREE.WebGLRenderer({ antialias: true, preserveDrawingBuffer: true });
    view.webgl = true;
  } catch (e) {
    banner('this browser cannot draw WebGL: the figures still update');
  }
  const scene = new THREE.Scene();
  scene.background = new THREE.Color(0x202020);
  const camera = new THREE.PerspectiveCamera(45, 1, 1, 100000);
  camera.up.set(0, 0, 1);  // the part's z is up
  camera.position.set(0, -800, 600);
  let controls = null;
  let userMoved = false;
  let dirty = true;
  if (renderer) {
    renderer.setPixelRatio(window.devicePixelRatio || 1);
    box.appendChild(renderer.domElement);
    controls = new THREE.OrbitControls(camera, renderer.domElement);
    controls.screenSpacePanning = true;
    controls.addEventListener('start', () => { userMoved = true; });
    controls.addEventListener('change', () => { dirty = true; });
  }
  function resize() {
    camera.aspect = box.clientWidth / Math.max(1, box.clientHeight);
    camera.updateProjectionMatrix();
    if (renderer) renderer.setSize(box.clientWidth, box.clientHeight);
    dirty = true;
  }
  window.addEventListener('resize', resize);
  resize();

  // ---- the cloud: growing arrays, drawn up to the points received -----------------------------
  let capacity = 0;
  let count = 0;
  let positions = new Float32Array(0);
  let values = new Float32Array(0);
  let normals = new Int8Array(0);
  let colours = new Uint8Array(0);
  let changedFrom = 0;  // the first point not yet handed to the GPU
  const lo = [Infinity, Infinity, Infinity];
  const hi = [-Infinity, -Infinity, -Infinity];
  let fittedSize = 0;
  const material = new THREE.PointsMaterial({ size: 1, vertexColors: THREE.VertexColors });
  let cloud = null;

  function grow(needed) {
    if (needed <= capacity) return;
    capacity = Math.max(needed, 2 * capacity, 65536);
    const p = new Float32Array(3 * capacity);
    const v = new Float32Array(capacity);
    const n = new Int8Array(3 * capacity);
    const c = new Uint8Array(3 * capacity);
    p.set(positions.subarray(0, 3 * count));
    v.set(values.subarray(0, count));
    n.set(normals.subarray(0, 3 * count));
    c.set(colours.subarray(0, 3 * count));
    positions = p;
    values = v;
    normals = n;
    colours = c;
    const geometry = new THREE.BufferGeometry();
    geometry.setAttribute('position', new THREE.BufferAttribute(positions, 3));
    geometry.setAttribute('color', new THREE.BufferAttribute(colours, 3, true));
    geometry.setDrawRange(0, count);
    if (cloud) {
      cloud.geometry.dispose();
      cloud.geometry = geometry;
    } else {
      cloud = new THREE.Points(geometry, material);
      cloud.frustumCulled = false;
      scene.add(cloud);
    }
    changedFrom = 0;
  }

  // The value's colour on the scale, shaded by a light from above and the left (-x, +y) as in
  // scan.png, so that the surface reads as a part from every side.
  const light = [-1 / Math.sqrt(3), 1 / Math.sqrt(3), 1 / Math.sqrt(3)];
  function colourOf(i) {
    const lut = view.colours;
    if (!lut) return;
    const span = view.scale[1] - view.scale[0];
    const t = span > 0 ? (values[i] - view.scale[0]) / span : 0;
    const k = 3 * Math.round(255 * Math.min(1, Math.max(0, isFinite(t) ? t : 1)));
    const n = normals.subarray(3 * i, 3 * i + 3);
    const up = n[2] < 0 ? -1 : 1;  // seen from above
    const lit = n[0] || n[1] || n[2] ?
      0.3 + 0.7 * Math.max(0, up * (n[0] * light[0] + n[1] * light[1] + n[2] * light[2]) / 127) : 1;
    colours[3 * i] = lut[k] * lit;
    colours[3 * i + 1] = lut[k + 1] * lit;
    colours[3 * i + 2] = lut[k + 2] * lit;
  }

  function addPoints(buffer) {
    const head = new DataView(buffer, 0, 16);
    const first = head.getUint32(4, true);
    const n = head.getUint32(8, true);
    if (head.getUint32(0, true) !== 1 || buffer.byteLength !== 16 + 20 * n) {
      view.mismatches++;
      return;
    }
    if (first !== view.received) view.mismatches++;
    // Records of 20 bytes: x, y, z, value (float32), the normal (three int8) and a zero byte.
    const data = new Float32Array(buffer, 16, 5 * n);
    const bytes = new Int8Array(buffer, 16, 20 * n);
    grow(count + n);
    for (let j = 0; j < n; j++) {
      const i = count + j;
      for (let a = 0; a < 3; a++) {
        const x = data[5 * j + a];
        positions[3 * i + a] = x;
        if (x < lo[a]) lo[a] = x;
        if (x > hi[a]) hi[a] = x;
        normals[3 * i + a] = bytes[20 * j + 16 + a];
      }
      values[i] = data[5 * j + 3];
      colourOf(i);
    }
    count += n;
    view.received += n;
    dirty = true;
  }

  function clearCloud(voxel) {
    count = 0;
    view.received = 0;
    changedFrom = 0;
    lo.fill(Infinity);
    hi.fill(-Infinity);
    fittedSize = 0;
    view.voxel = voxel;
    // Each point about as wide as its voxel, so that the surface reads closed.
    material.size = 1.5 * voxel;
    dirty = true;
  }

  function recolour() {
    for (let i = 0; i < count; i++) colourOf(i);
    changedFrom = 0;
    dirty = true;
  }

  // Hands the points changed since the last drawing to the GPU (once per drawing: a second range
  // set before the drawing would replace the first).
  function upload() {
    if (!cloud) return;
    const g = cloud.geometry;
    g.setDrawRange(0, count);
    if (changedFrom >= count) return;
    for (const [name, size] of [['position', 3], ['color', 3]]) {
      const attribute = g.getAttribute(name);
      attribute.updateRange.offset = size * changedFrom;
      attribute.updateRange.count = size * (count - changedFrom);
      attribute.needsUpdate = true;
    }
    changedFrom = count;
  }

  // ---- frames of the scanner and the trackers ---------------------------------------------------
  const scanner = new THREE.AxesHelper(60);
  scanner.matrixAutoUpdate = false;
  scanner.visible = false;
  scene.add(scanner);
  const trackers = {};

  function place(object, m) {
    object.matrix.set(...m);  // row-major, on column vectors
    object.matrixWorldNeedsUpdate = true;
    object.visible = true;
  }

  // Looks at the whole cloud from the front and above, unless the user has moved the view.
  function fit(always) {
    if (count === 0 || !controls) return;
    const size = Math.max(hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2], 1);
    if (!always && (userMoved || size < 1.15 * fittedSize)) return;
    fittedSize = size;
    const centre = new THREE.Vector3((lo[0] + hi[0]) / 2, (lo[1] + hi[1]) / 2, (lo[2] + hi[2]) / 2);
    const radius = 0.5 * Math.hypot(hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]);
    const distance = 0.85 * radius / Math.sin((camera.fov * Math.PI) / 360);
    const direction = new THREE.Vector3(0.25, -0.75, 0.85).normalize();
    camera.position.copy(centre).addScaledVector(direction, distance);
    camera.near = Math.max(0.1, distance / 200);
    camera.far = distance * 50 + 10000;
    camera.updateProjectionMatrix();
    controls.target.copy(centre);
    controls.update();
    dirty = true;
  }

  $('reset').addEventListener('click', () => {
    userMoved = false;
    fit(true);
  });

  // ---- figures, legend and state -------------------------------------------------------------
  const number = (v, digits) => (v === null || v === undefined ? '-' :
    Number(v).toLocaleString('en', { maximumFractionDigits: digits, minimumFractionDigits: digits }));

  function legend() {
    const ramp = $('ramp');
    const g = ramp.getContext('2d');
    const image = g.createImageData(1, 256);
    for (let r = 0; r < 256; r++) {
      const k = 3 * (255 - r);
      image.data.set([view.colours[k], view.colours[k + 1], view.colours[k + 2], 255], 4 * r);
    }
    g.putImageData(image, 0, 0);
  }

  function showState(state) {
    view.state = state;
    const text = {
      connecting: 'connecting', waiting: 'waiting for frames', scanning: 'scanning',
      finished: 'scan finished', stopped: 'scan stopped', lost: 'link lost',
    }[state] || state;
    $('state').textContent = text;
    $('state').className = state;
  }

  function banner(text) {
    $('banner').textContent = text;
    $('banner').style.display = text ? 'block' : 'none';
  }

  function onStatus(s) {
    if (s.sent !== view.received) view.mismatches++;
    view.sent = s.sent;
    view.cloud = s.cloud;
    view.frames = s.frames;
    const scaleChanged = s.colour !== view.colour || s.scale[0] !== view.scale[0] ||
      s.scale[1] !== view.scale[1];
    view.colour = s.colour;
    view.scale = s.scale;
    if (scaleChanged) recolour();
    const summary = s.summary || null;
    view.summary = summary;
    const from = (key, live) => (summary && summary[key] !== undefined ? summary[key] : live);
    $('frames').textContent = number(from('frames', s.frames), 0);
    $('fps').textContent = number(from('frames_per_second', s.fps), 1);
    $('dropped').textContent = number(from('dropped_frames', s.dropped), 0) +
      (s.queue_dropped ? ` (view ${number(s.queue_dropped, 0)})` : '');
    $('points').textContent = number(from('points', s.points), 0);
    $('shown').textContent = `${number(view.received, 0)} at ${s.voxel} mm`;
    const rms = summary && summary.accuracy ? summary.accuracy.rms_mm : s.rms;
    $('rms').textContent = rms === null || rms === undefined ? 'no truth' : `${number(rms, 4)} mm`;
    $('pages').textContent = number(s.pages, 0);
    const distance = s.colour === 'distance';
    $('legend-title').textContent = distance ? 'distance to truth' : 'height';
    $('legend-hi').textContent = `${number(s.scale[1], distance ? 3 : 0)} mm`;
    $('legend-lo').textContent = `${number(s.scale[0], distance ? 3 : 0)} mm`;
    if (s.pose) place(scanner, s.pose);
    for (const t of s.trackers) {
      if (!trackers[t.id]) {
        trackers[t.id] = new THREE.AxesHelper(150);
        trackers[t.id].matrixAutoUpdate = false;
        scene.add(trackers[t.id]);
      }
      place(trackers[t.id], t.frame);
    }
    showState(s.state);
    fit(false);
    dirty = true;
  }

  function onMessage(m) {
    if (m.type === 'hello') {
      view.colours = m.colours;
      $('title').textContent = m.title || '';
      const select = $('voxel');
      select.textContent = '';
      for (const v of m.voxels) {
        const option = document.createElement('option');
        option.value = option.textContent = String(v);
        select.appendChild(option);
      }
      select.value = String(m.voxel);
      clearCloud(m.voxel);
      legend();
    } else if (m.type === 'reset') {
      clearCloud(m.voxel);
      $('voxel').value = String(m.voxel);
    } else if (m.type === 'status') {
      onStatus(m);
    } else if (m.type === 'error') {
      banner(m.message);
    }
  }

  // ---- the link --------------------------------------------------------------------------------
  const socket = new WebSocket(`ws://${location.host}/stream`);
  socket.binaryType = 'arraybuffer';
  socket.onmessage = (event) => {
    view.messages++;
    if (typeof event.data === 'string') {
      onMessage(JSON.parse(event.data));
    } else {
      addPoints(event.data);
    }
  };
  socket.onclose = () => {
    if (view.state === 'finished' || view.state === 'stopped') {
      banner('');
      $('state').textContent += ' (server closed)';
    } else {
      showState('lost');
      banner('link to the scan lost: the figures and the cloud stay as they were');
    }
  };
  $('voxel').addEventListener('change', () => {
    socket.send(JSON.stringify({ voxel: Number($('voxel').value) }));
  });

  // ---- drawing ---------------------------------------------------------------------------------
  function frame() {
    if (dirty && renderer) {
      upload();
      renderer.render(scene, camera);
      dirty = false;
    }
    requestAnimationFrame(frame);
  }
  requestAnimationFrame(frame);

  // For tests: where the point nearest the cloud's centroid is drawn (CSS pixels), its value and
  // the colour it was given.
  view.probe = () => {
    if (count === 0) return null;
    const c = [0, 0, 0];
    for (let i = 0; i < count; i++) for (let a = 0; a < 3; a++) c[a] += positions[3 * i + a] / count;
    let best = 0;
    let bestD = Infinity;
    for (let i = 0; i < count; i++) {
      const d = (positions[3 * i] - c[0]) ** 2 + (positions[3 * i + 1] - c[1]) ** 2 +
        (positions[3 * i + 2] - c[2]) ** 2;
      if (d < bestD) { bestD = d; best = i; }
    }
    const p = new THREE.Vector3(positions[3 * best], positions[3 * best + 1],
      positions[3 * best + 2]).project(camera);
    return {
      x: (p.x + 1) / 2 * box.clientWidth, y: (1 - p.y) / 2 * box.clientHeight, value: values[best],
      colour: Array.from(colours.subarray(3 * best, 3 * best + 3)),
    };
  };
})();
