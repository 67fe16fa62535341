'use strict';

// The support console. It talks to nothing but the cloud's control interface,
// which serves it: devices, sessions, tasks and their answers, and the
// relayed screen. Everything a device reports is shown as text, never as markup.

const COMMAND_PREFIX = 'FFFFFF_LIVE_SUPPORT_';
const AVAILABLE_COMMANDS = COMMAND_PREFIX + 'GET_AVAILABLE_COMMANDS';
const TRANSPORT_CONTROL = COMMAND_PREFIX + 'MEDIA_STREAM_TRANSPORT_CONTROL';
const STREAM_PARAMS = COMMAND_PREFIX + 'MEDIA_STREAM_PARAMS';
const NETWORK_DIAGNOSTICS = COMMAND_PREFIX + 'NETWORK_DIAGNOSTICS';

const DEVICES_EVERY_MS = 3000;
const SESSIONS_EVERY_MS = 1000;
const STREAMS_EVERY_MS = 1000;
const OPENING_PATIENCE_MS = 60000;
const TASK_PATIENCE_MS = 60000;
// The diagnostics take up to half a minute on the device, plus its polls.
const DIAGNOSTICS_PATIENCE_MS = 90000;

const state = {
  devices: [],
  devicesKey: '',
  device: '',         // the selected device's common name
  sessions: [],
  opening: null,      // {device, before, deadline} while a session is asked for
  relay: null,        // {address, port}
  commands: new Map(),  // ID -> entry of the available-commands answer
  fields: [],         // the inputs of the chosen command's form
  pending: [],        // tasks waiting for their answer
  stream: '',         // the name of the stream the device was asked to send
};

const $ = (id) => document.getElementById(id);

function isObject(value) {
  return value !== null && typeof value === 'object' && !Array.isArray(value);
}

function make(tag, text, testid) {
  const node = document.createElement(tag);
  if (text !== undefined && text !== null) {
    node.textContent = String(text);
  }
  if (testid) {
    node.dataset.testid = testid;
  }
  return node;
}

function say(id, text, isError) {
  const node = $(id);
  node.textContent = text;
  node.classList.toggle('error', Boolean(isError));
}

function shortName(name) {
  return name.startsWith(COMMAND_PREFIX) ? name.slice(COMMAND_PREFIX.length) : name;
}

function pretty(value) {
  return typeof value === 'string' ? value : JSON.stringify(value, null, 2);
}

// A control call; throws with the cloud's reason when it refuses.
async function api(method, path, body) {
  const init = {method, headers: {}};
  if (body !== undefined) {
    init.body = JSON.stringify(body);
    init.headers['Content-Type'] = 'application/json';
  }
  const response = await fetch(path, init);
  const text = await response.text();
  let data = text;
  try {
    data = text ? JSON.parse(text) : null;
  } catch (ignored) {
    // Not JSON: keep the text.
  }
  if (!response.ok) {
    const why = isObject(data) && typeof data.error === 'string' ? data.error : text;
    throw new Error(`${method} ${path}: ${response.status} ${why}`.trim());
  }
  return data;
}

// ---- devices ----

async function refreshDevices() {
  let answer;
  try {
    answer = await api('GET', '/control/devices');
  } catch (error) {
    say('cloud-status', 'the cloud does not answer: ' + error.message, true);
    return;
  }
  const relay = state.relay && state.relay.port >= 0 ? `, media relay on port ${state.relay.port}` : '';
  say('cloud-status', 'connected to the cloud' + relay);
  state.devices = isObject(answer) && Array.isArray(answer.devices)
    ? answer.devices.filter((d) => isObject(d) && typeof d.device === 'string')
    : [];
  if (!state.device && state.devices.length > 0) {
    selectDevice(state.devices[0].device);
  }
  renderDevices();
}

function renderDevices() {
  const key = JSON.stringify([state.device, state.devices.map((d) => [
    d.device, d.synchronized, isObject(d.reported) ? [d.reported.daModel, d.reported.daSwVersion] : null,
  ])]);
  if (key === state.devicesKey) {
    return;  // rows stay as they are, so nothing clicked goes stale
  }
  state.devicesKey = key;
  const rows = $('device-rows');
  rows.replaceChildren();
  for (const device of state.devices) {
    const reported = isObject(device.reported) ? device.reported : {};
    const row = make('tr', null, 'device-row');
    row.dataset.device = device.device;
    row.classList.toggle('selected', device.device === state.device);
    row.append(make('td', device.device), make('td', reported.daModel ?? '–'),
      make('td', reported.daSwVersion ?? '–'), make('td', device.synchronized ? 'yes' : 'no'));
    row.addEventListener('click', () => selectDevice(device.device));
    rows.append(row);
  }
  $('devices-empty').hidden = state.devices.length > 0;
}

function selectDevice(device) {
  if (device === state.device) {
    return;
  }
  state.device = device;
  state.commands.clear();
  state.stream = '';
  $('command-form').hidden = true;
  say('commands-status', '');
  say('stream-status', 'not streaming');
  $('stream-view').removeAttribute('src');
  $('selected-device').textContent = device;
  renderDevices();
  renderSession();
}

// ---- sessions ----

function deviceSessions() {
  return state.sessions.filter((s) => s.device === state.device);
}

function activeSession() {
  const active = deviceSessions().filter((s) => s.state === 'active');
  return active.length > 0 ? active[active.length - 1] : null;
}

async function refreshSessions() {
  try {
    const list = await api('GET', '/control/sessions');
    state.sessions = Array.isArray(list) ? list.filter(isObject) : [];
  } catch (ignored) {
    // The devices' refresh says when the cloud is away.
  }
  renderSession();
  settleTasks();
}

function renderSession() {
  const sessions = deviceSessions();
  const active = activeSession();
  const latest = sessions.length > 0 ? sessions[sessions.length - 1] : null;
  const opening = state.opening;
  if (opening && (opening.device !== state.device || sessions.length > opening.before)) {
    state.opening = null;
    if (opening.device === state.device) {
      say('session-message', active ? 'The session is open.' : 'The device answered.');
    }
  } else if (opening && Date.now() > opening.deadline) {
    state.opening = null;
    if (active) {
      say('session-message', 'The device kept the session it had open.');
    } else {
      say('session-message', 'The device has not opened a session: is it online and does it allow remote sessions?', true);
    }
  }
  let shown = 'no session';
  if (active) {
    shown = 'active';
  } else if (state.opening) {
    shown = 'opening…';
  } else if (latest) {
    shown = String(latest.state);
  }
  $('session-state').textContent = shown;
  $('session-code').textContent = active ? String(active.code) : latest ? String(latest.code) : '–';
  $('session-open').disabled = !state.device || Boolean(state.opening);
  for (const id of ['commands-load', 'command-run', 'stream-start', 'stream-stop',
    'stream-params-apply', 'diag-run']) {
    const busy = $(id).dataset.busy === 'true';
    $(id).disabled = !active || busy;
  }
}

async function openSession() {
  if (!state.device) {
    return;
  }
  if (activeSession()) {
    say('session-message', 'The session is open.');
    return;
  }
  state.opening = {
    device: state.device,
    before: deviceSessions().length,
    deadline: Date.now() + OPENING_PATIENCE_MS,
  };
  say('session-message', 'Asked the device to open a session; it does so at its next poll.');
  renderSession();
  try {
    await api('POST', '/control/sessions', {device: state.device});
  } catch (error) {
    state.opening = null;
    say('session-message', error.message, true);
    renderSession();
  }
}

// ---- tasks and their answers ----

// The answer's document as the device wrote it: parsed here from its text,
// so that objects keep the device's member order.
function responseOf(result) {
  let document = null;
  try {
    document = JSON.parse(result.taskResponse);
  } catch (ignored) {
    return {raw: String(result.taskResponse)};
  }
  const responses = isObject(document) && isObject(document.TASK_OUTPUT)
    ? document.TASK_OUTPUT.RESPONSES : null;
  if (!Array.isArray(responses) || responses.length === 0 || !isObject(responses[0])) {
    return {raw: pretty(document)};
  }
  return responses[0];
}

// What a response carries: the DATA of its one output, or every output.
function dataOf(response) {
  const outputs = response.OUTPUTS;
  if (!Array.isArray(outputs) || outputs.length === 0) {
    return null;
  }
  if (outputs.length === 1 && isObject(outputs[0]) && 'DATA' in outputs[0]) {
    return outputs[0].DATA;
  }
  return outputs;
}

function resultText(response) {
  if ('raw' in response) {
    return 'not an answer the console can read';
  }
  return response.RESULT === 0 ? 'RESULT 0 (success)' : `RESULT ${pretty(response.RESULT)}`;
}

// One task in the answers list: waiting, then its answer.
function addEntry(name, operation) {
  const item = make('li', null, 'result');
  item.dataset.command = name;
  item.dataset.operation = operation;
  item.dataset.state = 'waiting';
  const head = make('div');
  head.className = 'result-head';
  const title = make('span', `${shortName(name)} ${operation} `, 'result-title');
  const status = make('span', 'waiting for the device…', 'result-status');
  status.className = 'waiting';
  head.append(title, status);
  const data = make('pre', null, 'result-data');
  data.hidden = true;
  item.append(head, data);
  $('results').prepend(item);
  return {
    queued(seq) {
      item.dataset.seq = String(seq);
      title.textContent = `#${seq} ${shortName(name)} ${operation} `;
    },
    answered(response) {
      item.dataset.state = 'done';
      item.dataset.result = 'raw' in response ? 'unreadable' : pretty(response.RESULT);
      status.textContent = resultText(response);
      status.className = response.RESULT === 0 ? 'success' : 'failure';
      const shown = 'raw' in response ? response.raw : dataOf(response);
      if (shown !== null && shown !== undefined) {
        data.textContent = pretty(shown);
        data.hidden = false;
      }
    },
    failed(message) {
      item.dataset.state = 'failed';
      status.textContent = message;
      status.className = 'pending';
    },
  };
}

// Queues one command for the device's active session and resolves with its
// response once the device has answered.
async function runTask(name, operation, inputs, patienceMs) {
  const session = activeSession();
  if (!session) {
    throw new Error('no active session: open one first');
  }
  const entry = addEntry(name, operation);
  const known = state.commands.get(name);
  const version = known && Number.isInteger(known.VERSION) ? known.VERSION : 0;
  let answer;
  try {
    answer = await api('POST', '/control/tasks', {
      device: state.device,
      requests: [{COMMAND: {NAME: name, OPERATION: operation, VERSION: version}, INPUTS: inputs}],
    });
  } catch (error) {
    entry.failed(error.message);
    throw error;
  }
  entry.queued(answer.seqNum);
  return new Promise((resolve, reject) => {
    state.pending.push({
      token: session.token,
      seq: answer.seqNum,
      deadline: Date.now() + (patienceMs || TASK_PATIENCE_MS),
      entry,
      resolve,
      reject,
    });
  });
}

function settleTasks() {
  const now = Date.now();
  state.pending = state.pending.filter((task) => {
    const session = state.sessions.find((s) => s.token === task.token);
    const results = session && Array.isArray(session.results) ? session.results : [];
    const result = results.filter(isObject).find((r) => r.taskSeqNum === task.seq);
    if (result) {
      const response = responseOf(result);
      task.entry.answered(response);
      task.resolve(response);
      return false;
    }
    let why = '';
    if (session && session.state === 'retired') {
      why = 'the session ended before the device answered';
    } else if (now > task.deadline) {
      why = 'no answer from the device in time';
    }
    if (why) {
      task.entry.failed(why);
      task.reject(new Error(why));
      return false;
    }
    return true;
  });
}

// Runs a task with its button marked busy, saying how it went in `statusId`.
async function busy(buttonId, statusId, work) {
  const button = $(buttonId);
  button.dataset.busy = 'true';
  button.disabled = true;
  try {
    await work();
  } catch (error) {
    say(statusId, error.message, true);
  } finally {
    button.dataset.busy = 'false';
    renderSession();
  }
}

// ---- commands ----

async function loadCommands() {
  await busy('commands-load', 'commands-status', async () => {
    say('commands-status', 'asking the device…');
    const response = await runTask(AVAILABLE_COMMANDS, 'EXECUTE', {});
    const data = dataOf(response);
    if (response.RESULT !== 0 || !Array.isArray(data)) {
      throw new Error('the device did not list its commands: ' + resultText(response));
    }
    state.commands.clear();
    for (const entry of data) {
      if (isObject(entry) && typeof entry.ID === 'string') {
        state.commands.set(entry.ID, entry);
      }
    }
    const select = $('command-select');
    select.replaceChildren();
    for (const name of [...state.commands.keys()].sort()) {
      const option = make('option', shortName(name));
      option.value = name;
      select.append(option);
    }
    $('command-form').hidden = false;
    say('commands-status', `${state.commands.size} commands`);
    await chooseCommand();
  });
}

function operationsOf(entry) {
  const all = Array.isArray(entry.OPERATIONS) ? entry.OPERATIONS : ['EXECUTE'];
  return all.filter((op) => op === 'EXECUTE' || op === 'GET');
}

async function chooseCommand() {
  const name = $('command-select').value;
  const entry = state.commands.get(name);
  if (!entry) {
    return;
  }
  const operation = $('command-operation');
  operation.replaceChildren();
  for (const op of operationsOf(entry)) {
    const option = make('option', op);
    option.value = op;
    operation.append(option);
  }
  buildForm([]);
  say('command-message', '');
  let description = isObject(entry.DESCRIPTION) ? entry.DESCRIPTION : null;
  const describable = Array.isArray(entry.OPERATIONS) && entry.OPERATIONS.includes('DESCRIPTION');
  if (!description && describable) {
    say('command-message', 'asking the device to describe the command…');
    try {
      const response = await runTask(name, 'DESCRIPTION', {});
      const data = dataOf(response);
      const found = [data, Array.isArray(data) ? data[0] : null, response.OUTPUTS]
        .find((d) => isObject(d) && 'INPUTS' in d);
      description = found || null;
    } catch (ignored) {
      description = null;
    }
    if ($('command-select').value !== name) {
      return;  // another command was chosen meanwhile
    }
  }
  const fields = describedInputs(description);
  buildForm(fields);
  say('command-message', fields.length > 0 || description
    ? '' : 'No description of its inputs: write them as JSON.');
}

// The inputs a description names, as an array of {NAME, TYPE, VALUES} or an
// object of name -> {ORDER, TYPE, DEFAULT, VALUES, MINIMUM_VALUE, ...}.
function describedInputs(description) {
  const inputs = isObject(description) ? description.INPUTS : null;
  const normal = (name, d, order) => ({
    name: String(name),
    type: String(d.TYPE || 'JSON').toUpperCase(),
    values: Array.isArray(d.VALUES) ? d.VALUES : null,
    defaultValue: d.DEFAULT,
    min: typeof d.MINIMUM_VALUE === 'number' ? d.MINIMUM_VALUE : null,
    max: typeof d.MAXIMUM_VALUE === 'number' ? d.MAXIMUM_VALUE : null,
    readOnly: d.READONLY === true || d.READONLY === 'true',
    order: typeof d.ORDER === 'number' ? d.ORDER : order,
  });
  let fields = [];
  if (Array.isArray(inputs)) {
    fields = inputs.filter(isObject).map((d, i) => normal(d.NAME ?? '', d, i));
  } else if (isObject(inputs)) {
    fields = Object.entries(inputs).filter(([, d]) => isObject(d))
      .map(([name, d], i) => normal(name, d, i));
  }
  return fields.filter((f) => f.name && !f.readOnly).sort((a, b) => a.order - b.order);
}

// One widget per input; read() gives {present, value} and throws for bad JSON.
function widgetFor(field) {
  const hint = field.defaultValue === undefined ? '' : pretty(field.defaultValue);
  if (field.values && field.type === 'ARRAY') {
    const select = make('select');
    select.multiple = true;
    select.size = Math.min(8, Math.max(2, field.values.length));
    field.values.forEach((value, i) => {
      const option = make('option', pretty(value));
      option.value = String(i);
      select.append(option);
    });
    return {node: select, read: () => {
      const chosen = [...select.selectedOptions].map((o) => field.values[Number(o.value)]);
      return {present: chosen.length > 0, value: chosen};
    }};
  }
  if (field.values) {
    const select = make('select');
    const none = make('option', '(leave out)');
    none.value = '';
    select.append(none);
    field.values.forEach((value, i) => {
      const option = make('option', pretty(value));
      option.value = String(i);
      select.append(option);
    });
    return {node: select, read: () => ({
      present: select.value !== '',
      value: select.value === '' ? null : field.values[Number(select.value)],
    })};
  }
  if (field.type === 'NUMERIC') {
    const input = make('input');
    input.type = 'number';
    input.placeholder = hint || 'leave out';
    if (field.min !== null) {
      input.min = String(field.min);
    }
    if (field.max !== null) {
      input.max = String(field.max);
    }
    return {node: input, read: () => {
      if (input.value.trim() === '') {
        return {present: false};
      }
      const number = Number(input.value);
      if (!Number.isFinite(number)) {
        throw new Error(`${field.name} is not a number`);
      }
      return {present: true, value: number};
    }};
  }
  if (field.type === 'BOOL') {
    // Left out until touched.
    const box = make('input');
    box.type = 'checkbox';
    box.indeterminate = true;
    box.dataset.touched = 'false';
    box.addEventListener('change', () => {
      box.dataset.touched = 'true';
    });
    return {node: box, read: () => ({present: box.dataset.touched === 'true', value: box.checked})};
  }
  if (field.type === 'STRING') {
    const input = make('input');
    input.type = 'text';
    input.placeholder = hint || 'leave out';
    return {node: input, read: () => ({present: input.value !== '', value: input.value})};
  }
  const area = make('textarea');
  area.rows = 3;
  area.placeholder = hint ? 'JSON, e.g. ' + hint : 'JSON';
  return {node: area, read: () => {
    if (area.value.trim() === '') {
      return {present: false};
    }
    try {
      return {present: true, value: JSON.parse(area.value)};
    } catch (error) {
      throw new Error(`${field.name} is not JSON`);
    }
  }};
}

function buildForm(fields) {
  const box = $('command-inputs');
  box.replaceChildren();
  state.fields = fields.map((field) => {
    const widget = widgetFor(field);
    widget.node.dataset.input = field.name;
    widget.node.dataset.testid = 'command-input';
    const label = make('label', `${field.name} `);
    label.append(widget.node);
    box.append(label);
    widget.node.addEventListener('input', syncJson);
    widget.node.addEventListener('change', syncJson);
    return {field, read: widget.read};
  });
  syncJson();
}

// The form writes the JSON inputs; the JSON is what runs, so it may be edited.
function syncJson() {
  const inputs = {};
  try {
    for (const {field, read} of state.fields) {
      const {present, value} = read();
      if (present) {
        inputs[field.name] = value;
      }
    }
  } catch (error) {
    say('command-message', error.message, true);
    return;
  }
  say('command-message', '');
  $('command-json').value = JSON.stringify(inputs, null, 2);
}

async function runChosenCommand(event) {
  event.preventDefault();
  const name = $('command-select').value;
  const operation = $('command-operation').value || 'EXECUTE';
  let inputs;
  try {
    inputs = JSON.parse($('command-json').value || '{}');
  } catch (error) {
    say('command-message', 'The inputs are not JSON: ' + error.message, true);
    return;
  }
  if (!isObject(inputs)) {
    say('command-message', 'The inputs must be a JSON object.', true);
    return;
  }
  await busy('command-run', 'command-message', async () => {
    say('command-message', `running ${shortName(name)}…`);
    const response = await runTask(name, operation, inputs);
    say('command-message', `${shortName(name)}: ${resultText(response)}`, response.RESULT !== 0);
  });
}

// ---- the screen ----

async function loadRelay() {
  try {
    const relay = await api('GET', '/control/relay');
    state.relay = isObject(relay) && Number.isInteger(relay.port) ? relay : null;
  } catch (ignored) {
    state.relay = null;
  }
  return state.relay;
}

// The stream's name on the relay, from the device's name.
function streamName() {
  return (state.device.replace(/[^A-Za-z0-9_.-]/g, '-').slice(0, 64)) || 'device';
}

function transportInputs(action, name) {
  return {
    ACTION: action,
    RELAY_SERVER_ADDRESS: state.relay.address || '127.0.0.1',
    RELAY_SERVER_PORT: state.relay.port,
    RELAY_SERVER_URI: '/streams/' + name,
    SECURE_MEDIA_STREAM: false,
  };
}

async function startStream() {
  await busy('stream-start', 'stream-status', async () => {
    const relay = state.relay || await loadRelay();
    if (!relay || relay.port < 0) {
      throw new Error('The cloud runs no media relay (zel-cloud --relay-port).');
    }
    const name = streamName();
    say('stream-status', 'asking the device to stream…');
    const response = await runTask(TRANSPORT_CONTROL, 'EXECUTE', transportInputs('RUNNING', name));
    if (response.RESULT !== 0) {
      throw new Error('The device did not start the stream: ' + resultText(response));
    }
    state.stream = name;
    say('stream-status', 'waiting for the first picture…');
    $('stream-view').src = `/control/streams/${encodeURIComponent(name)}?view=${Date.now()}`;
  });
}

async function stopStream() {
  await busy('stream-stop', 'stream-status', async () => {
    const relay = state.relay || await loadRelay();
    if (!relay || relay.port < 0) {
      throw new Error('The cloud runs no media relay (zel-cloud --relay-port).');
    }
    const name = state.stream || streamName();
    const response = await runTask(TRANSPORT_CONTROL, 'EXECUTE', transportInputs('SHUT_DOWN', name));
    if (response.RESULT !== 0) {
      throw new Error('The device did not stop the stream: ' + resultText(response));
    }
    // The last picture stays, without holding a live connection.
    $('stream-view').src = `/control/streams/${encodeURIComponent(name)}/frame.jpg?t=${Date.now()}`;
    state.stream = '';
    say('stream-status', 'stopped');
  });
}

async function applyStreamParams() {
  const inputs = {};
  const fields = [['param-width', 'VIDEO_WIDTH'], ['param-height', 'VIDEO_HEIGHT'],
    ['param-fps-num', 'FRAME_RATE_NUMERATOR'], ['param-fps-den', 'FRAME_RATE_DENOMINATOR'],
    ['param-quality', 'VIDEO_CODEC_QUALITY']];
  for (const [id, key] of fields) {
    const text = $(id).value.trim();
    if (text !== '') {
      const number = Number(text);
      if (!Number.isInteger(number) || number < 0) {
        say('stream-status', `${key} must be a whole number`, true);
        return;
      }
      inputs[key] = number;
    }
  }
  await busy('stream-params-apply', 'stream-status', async () => {
    const response = await runTask(STREAM_PARAMS, 'EXECUTE', inputs);
    say('stream-status', 'stream parameters: ' + resultText(response), response.RESULT !== 0);
  });
}

async function refreshStream() {
  if (!state.stream) {
    return;
  }
  let list;
  try {
    list = await api('GET', '/control/streams');
  } catch (ignored) {
    return;
  }
  const stream = Array.isArray(list) ? list.find((s) => isObject(s) && s.name === state.stream) : null;
  const status = $('stream-status');
  if (!stream || !state.stream) {
    return;
  }
  status.dataset.frames = String(stream.frames);
  const age = typeof stream.lastFrameAgeMs === 'number' ? `, last ${stream.lastFrameAgeMs} ms ago` : '';
  say('stream-status', `${stream.connected ? 'streaming' : 'not connected'}: ` +
    `${stream.frames} frames, ${stream.bytes} bytes${age}`);
}

// ---- network diagnostics ----

function cellText(value) {
  if (value === null || value === undefined) {
    return '–';
  }
  return typeof value === 'object' ? JSON.stringify(value) : String(value);
}

async function runDiagnostics() {
  await busy('diag-run', 'diag-status', async () => {
    const rows = $('diag-rows');
    rows.replaceChildren();
    say('diag-status', 'running… (up to half a minute)');
    const response = await runTask(NETWORK_DIAGNOSTICS, 'EXECUTE', {}, DIAGNOSTICS_PATIENCE_MS);
    const data = dataOf(response);
    if (isObject(data)) {
      for (const [key, value] of Object.entries(data)) {
        const row = make('tr', null, 'diag-row');
        row.dataset.key = key;
        row.append(make('th', key), make('td', cellText(value)));
        rows.append(row);
      }
    }
    say('diag-status', resultText(response), response.RESULT !== 0);
  });
}

// ---- start ----

function every(ms, work) {
  let running = false;
  const tick = async () => {
    if (running) {
      return;
    }
    running = true;
    try {
      await work();
    } finally {
      running = false;
    }
  };
  tick();
  setInterval(tick, ms);
}

$('session-open').addEventListener('click', openSession);
$('commands-load').addEventListener('click', loadCommands);
$('command-select').addEventListener('change', chooseCommand);
$('command-form').addEventListener('submit', runChosenCommand);
$('stream-start').addEventListener('click', startStream);
$('stream-stop').addEventListener('click', stopStream);
$('stream-params-apply').addEventListener('click', applyStreamParams);
$('diag-run').addEventListener('click', runDiagnostics);
$('stream-view').addEventListener('load', () => {
  $('stream-view').alt = 'the device\'s screen';
});
$('stream-view').addEventListener('error', () => {
  $('stream-view').removeAttribute('src');
});

loadRelay().then(() => {
  every(DEVICES_EVERY_MS, refreshDevices);
  every(SESSIONS_EVERY_MS, refreshSessions);
  every(STREAMS_EVERY_MS, refreshStream);
});
