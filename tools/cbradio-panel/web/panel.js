// The CB radio panel. Everything shown comes from the service: its signals, the results of its
// methods, its presence on the bus, and the requests it makes of the speech service and the audio
// manager (the weather alert read-out, the receive and transmit audio sources). A control only
// sends a method call; the display changes when the service reports the change.
'use strict';

const WEATHER_MHZ = ['162.400', '162.425', '162.450', '162.475', '162.500', '162.525', '162.550'];
const PROPERTIES = ['CBRHWConnectionStatus', 'CBRadioStatus', 'CBRChannelNumber', 'CBRSquelchLevel',
  'CBRReceptionSensitivityStatus', 'CBRWeatherAlertOnOffStatus'];
const LONG_PRESS_MS = 700;

const S = {
  panel: false, monitor: false, onBus: null, ready: false, power: null, channel: null, squelch: null, sens: null, hw: null,
  rx: 0, tx: 0, sigRx: null, sigTx: null, wa: null, presets: [0, 0, 0, 0, 0, 0], hwVer: null, swVer: null,
  scanning: false, storeMode: false, alert: null,
};
const $ = (id) => document.getElementById(id);

// ---- log ------------------------------------------------------------------------------------
function clock() {
  const d = new Date();
  const p = (n, w = 2) => String(n).padStart(w, '0');
  return `${p(d.getHours())}:${p(d.getMinutes())}:${p(d.getSeconds())}.${p(d.getMilliseconds(), 3)}`;
}
const KIND_MARK = { call: '\u2192', reply: '\u2190', error: '\u2717', signal: '\u26A1', service: '\u25CF', request: '\u21AA' };
function log(kind, text) {
  const list = $('log');
  const li = document.createElement('li');
  li.className = kind;
  const time = document.createElement('time');
  time.textContent = clock();
  const k = document.createElement('span');
  k.className = 'k';
  k.textContent = KIND_MARK[kind] || '\u00B7';
  const t = document.createElement('span');
  t.className = 't';
  t.textContent = text;
  li.append(time, k, t);
  list.prepend(li);
  while (list.children.length > 300) list.lastChild.remove();
}

// ---- calls ----------------------------------------------------------------------------------
// Resolves to {ok, result, text, error}; never rejects.
async function call(method, arg, quiet) {
  const body = arg === undefined ? '' : JSON.stringify(arg);
  if (!quiet) log('call', `${method} ${body}`);
  try {
    const res = await fetch(`/api/call/${method}`, {
      method: 'POST', headers: { 'Content-Type': 'application/json' }, body,
    });
    const answer = await res.json().catch(() => ({ error: 'http', message: res.statusText }));
    if (!res.ok) {
      log('error', `${method}: ${answer.error}: ${answer.message}`);
      return { ok: false, error: answer };
    }
    if (answer.sent) {
      if (!quiet) log('reply', `${method} sent (the service does not answer it)`);
      return { ok: true, result: null, text: '' };
    }
    if (!quiet || !isSuccess(answer.result)) log('reply', `${method} ${answer.text === '' ? '(empty result)' : answer.text}`);
    return { ok: true, result: answer.result, text: answer.text };
  } catch (e) {
    log('error', `${method}: the panel program did not answer (${e.message})`);
    return { ok: false, error: { error: 'panel', message: e.message } };
  }
}
const isSuccess = (r) => !!r && r.code === 0;

// ---- what the service tells ---------------------------------------------------------------
function onSignal(ev) {
  const { name, data, text } = ev;
  log('signal', `${name} ${text}`);
  if (!data || typeof data !== 'object') return;
  switch (name) {
    case 'CBRadioStatus':
      S.power = data.Status;
      if (S.power !== 1) { S.scanning = false; S.rx = 0; S.tx = 0; }
      break;
    case 'CBRChannelNumber': S.channel = data.ChannelNumber; break;
    case 'CBRSquelchLevel': S.squelch = data.SquelchLevel; break;
    case 'CBRReceptionSensitivity': S.sens = data.Sensitivity; break;
    case 'CBRHWConnectionStatus':
      S.hw = data.HWConnectionStatus;
      // A connected module is asked for its software version by the service; ask it a little later.
      if (S.hw === 1) setTimeout(queryVersions, 800);
      break;
    case 'CBRRxTxStatus':
      // The service signals the module's Rx/Tx state when the audio manager confirms a source and
      // on the return to idle, so the signal can lag behind the audio path in either direction.
      // With the monitor the lamps follow the receive and transmit sources the service takes and
      // gives back; the signalled values are shown in the status card.
      S.sigRx = data.RxStatus;
      S.sigTx = data.TxStatus;
      if (!S.monitor) { S.rx = data.RxStatus; S.tx = data.TxStatus; }
      break;
    case 'CBRWeatherAlertOnOffStatus':
      S.wa = data.weatherAlertOnOffStatus;
      if (S.wa !== 1) S.alert = null;
      break;
    default: break;
  }
  render();
}

function onRequest(ev) {
  const { to, method, data, text } = ev;
  log('request', `service \u2192 ${to}.${method} ${text}`);
  if (to === 'TextToSpeechService' && method === 'ttsReadout' && data && typeof data.data === 'string') {
    const m = /(\d{3}\.\d{3}) MHz/.exec(data.data);
    const wx = m ? WEATHER_MHZ.indexOf(m[1]) + 1 : 0;
    S.alert = { wx, mhz: m ? m[1] : '', text: data.data.trim(), time: clock().slice(0, 8) };
  } else if (to === 'AudioManager' && data && (data.source === 'cbRX' || data.source === 'cbTX')) {
    const on = method === 'addInterruptSrc' ? 1 : 0;
    if (data.source === 'cbRX') S.rx = on; else S.tx = on;
  }
  render();
}

function onService(ev) {
  const was = S.onBus;
  S.onBus = !!ev.onBus;
  if (was !== S.onBus) log('service', S.onBus ? 'the CB radio service is on the bus' : 'the CB radio service is not on the bus');
  if (S.onBus && was !== true) {
    // What the panel knew belongs to the service that left; ask the one that is there now.
    Object.assign(S, { ready: false, power: null, channel: null, squelch: null, sens: null, hw: null, rx: 0, tx: 0, sigRx: null, sigTx: null, wa: null, scanning: false });
    setTimeout(refresh, 400);
  }
  render();
}

// ---- asking the service --------------------------------------------------------------------
let refreshRun = 0;
async function refresh() {
  const run = ++refreshRun;
  log('service', 'asking the service for its state');
  for (const props of PROPERTIES) {
    if (run !== refreshRun || !S.onBus) return;
    await call('getProperties', { props }, true);
  }
  await queryVersions();
  // Presets are answered once the service has its settings; until then it answers failure, and so
  // would every control: the page waits for that moment.
  for (let attempt = 0; attempt < 60 && run === refreshRun && S.onBus; attempt++) {
    if (await queryPresets()) break;
    await new Promise((r) => setTimeout(r, 1000));
  }
}

async function queryVersions() {
  const hw = await call('reqCBRHWVersion', undefined, true);
  if (hw.ok && isSuccess(hw.result)) S.hwVer = hw.result.CBRadioHWVersion;
  const sw = await call('reqCBRSWVersion', undefined, true);
  if (sw.ok && isSuccess(sw.result)) S.swVer = sw.result.CBRadioSWVersion;
  render();
}

async function queryPresets() {
  const r = await call('reqCBRGetPresetList', undefined, true);
  const list = r.ok && r.result && r.result.CBRadioPresetList;
  if (!Array.isArray(list)) return false;
  for (const entry of list) {
    const n = entry.PresetNo;
    if (n >= 1 && n <= 6) S.presets[n - 1] = entry.Channel_number;
  }
  if (!S.ready) log('service', 'the service has its settings: ready');
  S.ready = true;
  render();
  return true;
}

// ---- controls -------------------------------------------------------------------------------
async function storePreset(n) {
  S.storeMode = false;
  render();
  if (!(S.channel >= 1 && S.channel <= 40)) { log('error', 'no channel to store yet'); return; }
  const r = await call('reqCBRStorePreset', { channelNumber: S.channel, presetNo: n });
  if (r.ok && isSuccess(r.result)) {
    await queryPresets();
    const button = $(`preset-${n}`);
    button.classList.remove('stored');
    void button.offsetWidth;
    button.classList.add('stored');
  }
}

function wirePreset(button) {
  const n = Number(button.dataset.preset);
  let timer = null;
  let longDone = false;
  button.addEventListener('pointerdown', (e) => {
    if (e.button !== 0) return;
    longDone = false;
    timer = setTimeout(() => { timer = null; longDone = true; storePreset(n); }, LONG_PRESS_MS);
  });
  const release = (e) => {
    if (timer === null) return;
    clearTimeout(timer);
    timer = null;
    if (e.type !== 'pointerup' || longDone) return;
    if (S.storeMode) storePreset(n);
    else call('reqCBRSelectPreset', { PresetNo: n });
  };
  button.addEventListener('pointerup', release);
  button.addEventListener('pointerleave', release);
  button.addEventListener('pointercancel', release);
  button.addEventListener('contextmenu', (e) => e.preventDefault());
}

// Push-to-talk: press asks for transmit, release for receive, in that order. The service goes
// back to receive only once it holds the transmit audio source; a release that comes before that
// is answered with an empty result, so it is asked again for a short while.
let pttHeld = false;
let pttChain = Promise.resolve();
function pttPress() {
  if (pttHeld) return;
  pttHeld = true;
  render();
  pttChain = pttChain.then(() => call('reqCBRChangeRxToTx'));
}
function pttRelease() {
  if (!pttHeld) return;
  pttHeld = false;
  render();
  pttChain = pttChain.then(async () => {
    for (let attempt = 0; attempt < 6; attempt++) {
      const r = await call('reqCBRChangeTxToRx', undefined, attempt > 0);
      if (!r.ok || r.text !== '' || S.power !== 1 || pttHeld) return;
      await new Promise((res) => setTimeout(res, 300));
    }
  });
}

function wireControls() {
  $('power').addEventListener('click', () => call('reqCBRStateChange', { CBRState: S.power === 1 ? 0 : 1 }));
  $('seek-up').addEventListener('click', () => call('reqCBRStartSeek', { seekDirection: 1 }));
  $('seek-down').addEventListener('click', () => call('reqCBRStartSeek', { seekDirection: 0 }));
  $('sq-up').addEventListener('click', () => call('reqCBRAdjustSquelchLevel', { squelchChg: 1 }));
  $('sq-down').addEventListener('click', () => call('reqCBRAdjustSquelchLevel', { squelchChg: 0 }));
  $('wx').addEventListener('click', () => call('reqCBRWeatherAlertOnOff', { CBRWAState: S.wa === 1 ? 0 : 1 }));
  $('scan').addEventListener('click', async () => {
    const start = !S.scanning;
    const r = await call(start ? 'reqCBRStartScan' : 'reqCBRStopScan');
    if (r.ok && isSuccess(r.result)) { S.scanning = start; render(); }
  });
  $('store').addEventListener('click', () => { S.storeMode = !S.storeMode; render(); });
  document.querySelectorAll('.preset[data-preset]').forEach(wirePreset);

  const ptt = $('ptt');
  ptt.addEventListener('pointerdown', (e) => {
    if (e.button !== 0 || ptt.disabled) return;
    ptt.setPointerCapture(e.pointerId);
    pttPress();
  });
  ptt.addEventListener('pointerup', pttRelease);
  ptt.addEventListener('pointercancel', pttRelease);
  ptt.addEventListener('lostpointercapture', pttRelease);
  ptt.addEventListener('contextmenu', (e) => e.preventDefault());
  document.addEventListener('keydown', (e) => {
    if (e.code === 'Space' && !e.repeat && e.target === document.body) { e.preventDefault(); pttPress(); }
  });
  document.addEventListener('keyup', (e) => { if (e.code === 'Space') pttRelease(); });
  window.addEventListener('blur', pttRelease);
  // A page closed with PTT held must not leave the radio transmitting.
  window.addEventListener('pagehide', () => {
    if (pttHeld) fetch('/api/call/reqCBRChangeTxToRx', { method: 'POST', body: '', keepalive: true });
  });

  $('banner-close').addEventListener('click', () => { S.alert = null; render(); });
  $('log-clear').addEventListener('click', () => { $('log').textContent = ''; });
}

// ---- drawing ------------------------------------------------------------------------------
const SEGMENTS = { // a b c d e f g
  0: 'abcdef', 1: 'bc', 2: 'abged', 3: 'abgcd', 4: 'fgbc', 5: 'afgcd', 6: 'afgedc', 7: 'abc', 8: 'abcdefg', 9: 'abcdfg', '-': 'g', ' ': '',
};
function segmentShapes(x0) {
  const h = (x, y, l) => `${x},${y} ${x + 5},${y - 5} ${x + l - 5},${y - 5} ${x + l},${y} ${x + l - 5},${y + 5} ${x + 5},${y + 5}`;
  const v = (x, y, l) => `${x},${y} ${x + 5},${y + 5} ${x + 5},${y + l - 5} ${x},${y + l} ${x - 5},${y + l - 5} ${x - 5},${y + 5}`;
  return {
    a: h(x0 + 8, 6, 40), g: h(x0 + 8, 52, 40), d: h(x0 + 8, 98, 40),
    f: v(x0 + 6, 8, 42), b: v(x0 + 50, 8, 42), e: v(x0 + 6, 54, 42), c: v(x0 + 50, 54, 42),
  };
}
function buildDigits() {
  const svg = $('channel');
  const ns = 'http://www.w3.org/2000/svg';
  const g = document.createElementNS(ns, 'g');
  g.setAttribute('transform', 'skewX(-6) translate(10 0)');
  [0, 64].forEach((x0, i) => {
    for (const [name, points] of Object.entries(segmentShapes(x0))) {
      const p = document.createElementNS(ns, 'polygon');
      p.setAttribute('points', points);
      p.setAttribute('class', 'seg');
      p.dataset.digit = String(i);
      p.dataset.seg = name;
      g.appendChild(p);
    }
  });
  svg.appendChild(g);
}
function drawDigits(text) {
  const chars = text.padStart(2, ' ').slice(-2);
  document.querySelectorAll('#channel .seg').forEach((p) => {
    const lit = SEGMENTS[chars[Number(p.dataset.digit)]] || '';
    p.classList.toggle('on', lit.includes(p.dataset.seg));
  });
}

const onOff = (v, on, off) => (v === 1 ? on : v === 0 ? off : '\u2013');
function setText(id, text, cls) {
  const el = $(id);
  el.textContent = text;
  if (cls !== undefined) el.className = cls;
}

function render() {
  const on = S.power === 1;
  const live = S.panel && S.onBus === true && S.ready;
  $('lcd').classList.toggle('off', !on);
  drawDigits(on && S.channel ? String(S.channel).padStart(2, '0') : '--');
  $('channel').dataset.value = on && S.channel ? String(S.channel) : '';
  $('channel').setAttribute('aria-label', on && S.channel ? `channel ${S.channel}` : 'channel unknown');
  $('squelch').textContent = on && S.squelch !== null ? String(S.squelch).padStart(2, '0') : '--';
  $('squelch').dataset.value = on && S.squelch !== null ? String(S.squelch) : '';
  $('smeter').dataset.value = S.sens === null ? '' : String(S.sens);
  $('smeter').querySelectorAll('i').forEach((bar, i) => bar.classList.toggle('on', on && S.sens > i));
  $('lcd-power').textContent = S.power === null ? 'NO DATA' : on ? `RADIO ON${S.storeMode ? ' \u00B7 STORE: PRESS A PRESET' : ''}` : 'OFF';

  $('ind-rx').classList.toggle('on', on && S.rx === 1);
  $('ind-tx').classList.toggle('on', on && S.tx === 1);
  $('ind-scan').classList.toggle('on', on && S.scanning);
  $('ind-wx').classList.toggle('on', S.wa === 1);
  $('ind-mem').classList.toggle('on', S.storeMode);
  $('ind-hw').classList.toggle('on', S.hw === 0);
  $('lamp-rx').classList.toggle('on', on && S.rx === 1);
  $('lamp-tx').classList.toggle('on', on && S.tx === 1);
  $('power').classList.toggle('lit', on);
  $('scan').classList.toggle('lit', on && S.scanning);
  $('wx').classList.toggle('lit', S.wa === 1);
  $('store').classList.toggle('lit', S.storeMode);
  $('ptt').classList.toggle('held', pttHeld);

  for (let n = 1; n <= 6; n++) {
    const ch = S.presets[n - 1];
    const button = $(`preset-${n}`);
    const label = button.querySelector('small');
    label.textContent = ch ? `CH ${String(ch).padStart(2, '0')}` : '--';
    label.dataset.value = String(ch || 0);
    button.classList.toggle('filled', !!ch);
    button.classList.toggle('current', on && !!ch && ch === S.channel);
  }
  document.querySelectorAll('.radio button').forEach((b) => { b.disabled = !live; });

  setText('st-service', S.onBus === null ? '\u2013' : S.onBus ? 'on the bus' : 'not on the bus', S.onBus ? 'good' : S.onBus === false ? 'bad' : '');
  setText('st-hw', onOff(S.hw, 'connected', 'not connected'), S.hw === 1 ? 'good' : S.hw === 0 ? 'bad' : '');
  setText('st-power', onOff(S.power, 'on', 'off'));
  setText('st-wa', onOff(S.wa, 'on', 'off'));
  setText('st-sens', S.sens === null ? '\u2013' : `${S.sens} of 5 bars`);
  setText('st-rxtx', S.sigRx === null ? '\u2013' : `RX ${S.sigRx} \u00B7 TX ${S.sigTx}`);
  setText('st-hwver', S.hwVer || '\u2013');
  setText('st-swver', S.swVer || '\u2013');

  const pillPanel = $('pill-panel');
  pillPanel.className = `pill ${S.panel ? 'up' : 'down'}`;
  const pillService = $('pill-service');
  pillService.className = `pill ${S.onBus ? 'up' : S.onBus === false ? 'down' : ''}`;

  const overlay = $('offbus');
  overlay.hidden = live;
  if (!S.panel) {
    $('offbus-title').textContent = 'The panel program is not reachable';
    $('offbus-detail').textContent = 'This page reconnects by itself once cbradio-panel runs again.';
  } else if (S.onBus === false) {
    $('offbus-title').textContent = 'The CB radio service is not on the bus';
    $('offbus-detail').textContent = 'The panel shows it again as soon as it starts.';
  } else if (S.onBus) {
    $('offbus-title').textContent = 'The CB radio service is starting\u2026';
    $('offbus-detail').textContent = 'Waiting until it has its settings and answers.';
  } else {
    $('offbus-title').textContent = 'Connecting\u2026';
    $('offbus-detail').textContent = '';
  }

  const banner = $('banner');
  banner.hidden = !S.alert;
  if (S.alert) {
    $('banner-channel').textContent = S.alert.wx ? `WX${S.alert.wx} \u00B7 ${S.alert.mhz} MHz` : 'weather band';
    $('banner-channel').dataset.value = String(S.alert.wx);
    $('banner-detail').textContent = `${S.alert.time} \u2014 ${S.alert.text}`;
  }
}

// ---- the event stream -----------------------------------------------------------------------
function connect() {
  const source = new EventSource('/api/events');
  source.onopen = () => {
    if (!S.panel) log('service', 'connected to the panel program');
    S.panel = true;
    render();
  };
  source.onerror = () => {
    if (S.panel) log('error', 'lost the panel program; reconnecting');
    S.panel = false;
    S.onBus = null;
    S.ready = false;
    render();
  };
  const handle = (fn) => (msg) => { try { fn(JSON.parse(msg.data)); } catch (e) { log('error', `bad event: ${e.message}`); } };
  source.addEventListener('service', handle(onService));
  source.addEventListener('signal', handle(onSignal));
  source.addEventListener('request', handle(onRequest));
  source.addEventListener('monitor', handle((e) => { S.monitor = !!e.available; }));
  source.addEventListener('bus', handle(() => log('error', 'the panel lost the session bus')));
  source.addEventListener('missed', handle((e) => log('error', `${e.count} events were missed`)));
}

buildDigits();
wireControls();
render();
connect();
