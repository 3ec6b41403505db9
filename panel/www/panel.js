/*
 * The page: plays the live picture, shows the state, draws the plots, changes the settings.
 *
 * Everything comes from the place the page came from. Two requests stay open, the picture and the
 * events, and both are closed while nobody can see the page.
 */
'use strict';

const $ = (id) => document.getElementById(id);
const seconds = () => performance.now() / 1000;
const pause = (s) => new Promise((resolve) => setTimeout(resolve, s * 1000));
const OLD_AFTER = 2; /* seconds without a picture after which the last one is marked as old */

document.documentElement.classList.add('scripts');
$('screen').hidden = $('controls').hidden = false;

let state = {condition: $('status').dataset.condition, text: $('sentence').textContent};

async function visible() {
    while (document.hidden) {
        await new Promise((resolve) =>
            document.addEventListener('visibilitychange', resolve, {once: true}));
    }
}

/* --- the picture ------------------------------------------------------------------------------ */

const video = $('video');
let lastPicture = -Infinity; /* when one was shown */
let pictures = 0;
let stream = null; /* aborts the request that runs */
let edge = 0;      /* of what was received, on the video's clock */
const LEAST_SLACK = 0.06, MOST_SLACK = 0.3; /* seconds; a picture lasts a thirtieth */
let slack = LEAST_SLACK; /* what the player may have in store */
let began = 0;           /* when it was set up */

function badge(text, kind) {
    $('badge').textContent = text;
    $('badge').dataset.kind = kind;
}

function showOnly(id) {
    for (const other of ['still', 'snapshot']) {
        $(other).hidden = other !== id;
    }
}

/* Keeps the last picture in sight while the player is set up anew. */
function freeze() {
    if (video.readyState >= 2 && video.videoWidth > 0) {
        const still = $('still');
        still.width = video.videoWidth;
        still.height = video.videoHeight;
        still.getContext('2d').drawImage(video, 0, 0);
        showOnly('still');
    }
}

function onPicture() {
    lastPicture = seconds();
    pictures++;
    $('screen').dataset.pictures = pictures;
    if (!$('still').hidden || !$('snapshot').hidden) {
        showOnly('');
    }
    video.requestVideoFrameCallback(onPicture);
}

/* Stays close behind what was received: jumps over a backlog, plays faster over less. How close the
 * way from the box and this machine allow, the player itself finds out: it runs dry when it is too
 * close. */
function chase() {
    const lag = edge - video.currentTime;
    if (lag > 1 || lag < 0) {
        video.currentTime = Math.max(edge - 0.05, 0);
    }
    slack = Math.max(slack - 0.0002, LEAST_SLACK);
    video.playbackRate = lag > slack + 0.25 ? 1.2 : lag > slack + 0.1 ? 1.08
        : lag > slack ? 1.03 : 1;
    if (video.paused) {
        video.play().catch(() => {});
    }
}

function done(target, event) {
    return new Promise((resolve, reject) => {
        target.addEventListener(event, resolve, {once: true});
        target.addEventListener('error', () => reject(new Error('not playable')), {once: true});
    });
}

class Refused extends Error {
    constructor(status, reason) {
        super(reason);
        this.status = status;
    }
}

/* Plays until the stream ends, as it does at every change of the input. */
async function play(signal) {
    const answer = await fetch('live.mp4', {signal, cache: 'no-store'});
    if (!answer.ok) {
        throw new Refused(answer.status, (await answer.json()).error);
    }
    const type = answer.headers.get('Content-Type');
    if (!MediaSource.isTypeSupported(type)) {
        throw new Refused(415, 'This browser does not play ' + type);
    }
    freeze();
    const source = new MediaSource();
    const opened = done(source, 'sourceopen');
    const address = URL.createObjectURL(source);
    video.src = address;
    began = seconds();
    await opened;
    URL.revokeObjectURL(address);
    const buffer = source.addSourceBuffer(type);
    const reader = answer.body.getReader();
    for (let part = await reader.read(); !part.done; part = await reader.read()) {
        buffer.appendBuffer(part.value);
        await done(buffer, 'updateend');
        const ranges = buffer.buffered;
        if (ranges.length > 0) {
            edge = ranges.end(ranges.length - 1);
            chase();
            if (edge - ranges.start(0) > 20) {
                buffer.remove(0, edge - 10);
                await done(buffer, 'updateend');
            }
        }
    }
}

/* One picture a second, for as long as there is no room among the viewers. */
async function showSnapshot() {
    const image = new Image();
    image.src = 'snapshot.jpeg?' + Date.now();
    await image.decode().catch(() => {});
    if (image.naturalWidth > 0) {
        $('snapshot').src = image.src;
        showOnly('snapshot');
        lastPicture = seconds();
        badge('snapshots: ' + (state.panel ? 'all viewers\u2019 places are taken' : ''), 'old');
    }
}

function showPreviews() {
    $('snapshot').src = 'preview.mjpeg';
    showOnly('snapshot');
    setInterval(() => { lastPicture = seconds(); }, 1000);
    badge('previews', 'live');
}

async function watch() {
    if (!('MediaSource' in window) || !video.requestVideoFrameCallback) {
        showPreviews();
        return;
    }
    video.requestVideoFrameCallback(onPicture);
    video.addEventListener('waiting', () => {
        if (seconds() > began + 3) { /* the first ones are always uneven */
            slack = Math.min(slack + 0.02, MOST_SLACK);
        }
    });
    for (;;) {
        await visible();
        stream = new AbortController();
        try {
            await play(stream.signal);
        } catch (error) {
            freeze();
            if (error.status === 415) {
                showPreviews();
                return;
            }
            if (error.status === 503 && /watching already/.test(error.message)) {
                await showSnapshot();
            }
            await pause(error.status ? 1 : 0.3);
        }
        stream.abort();
    }
}

function mark() {
    const age = seconds() - lastPicture;
    const old = age > OLD_AFTER;
    $('screen').classList.toggle('old', old);
    $('veil').hidden = !old;
    if (old) {
        $('veil-word').textContent =
            state.condition === 'streaming' ? 'no picture' : state.condition.replace(/-/g, ' ');
        $('veil-text').textContent = state.condition === 'streaming'
            ? 'The box streams, but no picture arrives here.' : state.text;
        badge(age === Infinity ? 'no picture yet'
                               : 'old picture, ' + Math.round(age) + ' s ago', 'old');
    } else if ($('snapshot').hidden) {
        badge('live', 'live');
    }
    const lag = edge - video.currentTime;
    $('delay').textContent = old || lag <= 0 || !$('snapshot').hidden
        ? '' : Math.round(lag * 1000) + ' ms buffered';
}

/* --- the state -------------------------------------------------------------------------------- */

const known = (value, unit = '') => value === null || value === undefined
    ? '' : (typeof value === 'number' ? value.toLocaleString('en', {maximumFractionDigits: 1})
                                      : value) + unit;
const list = (...texts) => texts.filter((text) => text).join(', ');

function duration(s) {
    if (s === null || s === undefined) {
        return '';
    }
    const units = [[86400, 'd'], [3600, 'h'], [60, 'min'], [1, 's']];
    const at = units.findIndex(([size]) => s >= size);
    if (at < 0 || at === 3) {
        return Math.round(s) + ' s';
    }
    const rest = Math.floor((s % units[at][0]) / units[at + 1][0]);
    return Math.floor(s / units[at][0]) + ' ' + units[at][1] +
        (rest ? ' ' + rest + ' ' + units[at + 1][1] : '');
}

function showFigures() {
    const {input = {}, stream: flow = {}, preview = {}, relay = {}, daemon = {}, acts = {},
           panel = {}} = state;
    const texts = {
        'f-input': input.width
            ? input.width + ' \u00d7 ' + input.height + ' at ' + input.fps + ' pictures/s' +
              (input.interlaced ? ', interlaced' : '')
            : input.link === 'no-link' ? 'no cable' : 'none known',
        'f-stream': list(known(flow.kbit_per_second, ' kbit/s'),
                         known(flow.pictures_per_second, ' pictures/s'),
                         known(flow.lost, ' packets lost')) || 'none known',
        'f-size': flow.width ? flow.width + ' \u00d7 ' + flow.height + ', H.264 ' +
            known(flow.profile) + ' ' + known(flow.level) : '',
        'f-key': known(flow.keyframe_interval && 'every ' + flow.keyframe_interval + ' pictures'),
        'f-preview': preview.age === null || preview.age === undefined
            ? '' : duration(preview.age) + ' old',
        'f-relay': list(known(relay.forwarded, ' forwarded'),
                        relay.thinned ? known(relay.thinned, ' thinned') : '',
                        relay.dropped ? known(relay.dropped, ' dropped') : ''),
        'f-daemon': list(daemon.uptime ? 'up ' + duration(daemon.uptime) : '',
                         known(daemon.cpu_percent, ' % CPU'),
                         daemon.memory_bytes
                             ? Math.round(daemon.memory_bytes / 1048576) + ' MB' : ''),
        'f-guard': list(known(acts.announcements, ' announced'), known(acts.restarts, ' restarts'),
                        known(acts.budget_left, ' more allowed this hour')),
        'f-viewers': known(panel.viewers) && panel.viewers + ' of ' + panel.most_viewers,
    };
    for (const [id, text] of Object.entries(texts)) {
        $(id).textContent = text;
    }
}

function showEvents() {
    const lines = (state.events || []).slice().reverse().map((event) => {
        const line = document.createElement('li');
        const time = document.createElement('time');
        const when = new Date(event.time * 1000);
        time.textContent = when.toLocaleTimeString('en-GB');
        time.title = when.toISOString();
        time.dateTime = when.toISOString();
        line.append(time, event.text);
        return line;
    });
    if (lines.length > 0) {
        $('events').replaceChildren(...lines);
    }
}

function showState(next) {
    const events = JSON.stringify(state.events);
    state = next;
    $('status').dataset.condition = state.condition;
    const word = state.condition.replace(/-/g, ' ');
    if ($('word').textContent !== word || $('sentence').textContent !== state.text) {
        $('word').textContent = word; /* only then: it is read out */
        $('sentence').textContent = state.text;
        document.title = word + ' \u2013 HDMI encoder';
    }
    showFigures();
    mark();
    if (JSON.stringify(state.events) !== events) {
        showEvents();
    }
}

async function listen() {
    for (;;) {
        await visible();
        const source = new EventSource('api/events');
        source.addEventListener('state', (event) => showState(JSON.parse(event.data)));
        await new Promise((resolve) => {
            source.addEventListener('error', resolve, {once: true});
            document.addEventListener('visibilitychange', resolve, {once: true});
        });
        const lost = !document.hidden;
        source.close();
        if (lost) {
            showState({...state, condition: 'no-panel',
                       text: 'The box does not answer; what is seen here is old.'});
            await pause(1);
        }
    }
}

/* --- the plots -------------------------------------------------------------------------------- */

const PLOTS = {kbit: 0, pictures: 1, lost: 0, cpu: 1}; /* digits */
const SPAN = 600;
let plotted = {time: [], kbit: [], pictures: [], lost: [], cpu: []};

function draw(name) {
    const canvas = $('p-' + name);
    const context = canvas.getContext('2d');
    const scale = window.devicePixelRatio || 1;
    const width = canvas.clientWidth, height = canvas.clientHeight;
    if (canvas.width !== Math.round(width * scale)) {
        canvas.width = Math.round(width * scale);
        canvas.height = Math.round(height * scale);
    }
    context.setTransform(scale, 0, 0, scale, 0, 0);
    context.clearRect(0, 0, width, height);
    const values = plotted[name], times = plotted.time;
    const most = Math.max(...values.filter((value) => value !== null), name === 'lost' ? 1 : 0.1);
    const style = getComputedStyle(document.documentElement);
    context.fillStyle = style.getPropertyValue('--quiet');
    context.font = '11px sans-serif';
    context.fillText(most.toLocaleString('en', {maximumFractionDigits: PLOTS[name]}), 2, 11);
    context.strokeStyle = style.getPropertyValue(name === 'lost' ? '--bad' : '--plot');
    context.lineWidth = 1.5;
    context.beginPath();
    const now = times[times.length - 1];
    let open = false;
    for (let i = 0; i < values.length; i++) {
        if (values[i] === null) {
            open = false;
            continue;
        }
        const x = width * (1 - (now - times[i]) / SPAN);
        const y = height - 2 - (height - 16) * values[i] / most;
        context[open ? 'lineTo' : 'moveTo'](x, y);
        open = true;
    }
    context.stroke();
    const last = values[values.length - 1];
    $('p-' + name + '-now').textContent = last === null || last === undefined
        ? '' : last.toLocaleString('en', {maximumFractionDigits: PLOTS[name]});
}

function drawAll() {
    Object.keys(PLOTS).forEach(draw);
}

async function plot() {
    for (;;) {
        await visible();
        try {
            const answer = await fetch('api/history', {cache: 'no-store'});
            plotted = await answer.json();
            drawAll();
        } catch {
            /* The status line says that the box is gone. */
        }
        await pause(2);
    }
}

/* --- the settings ----------------------------------------------------------------------------- */

const LABELS = {
    h264: 'Stream', gop: 'Key frame distance', mode: 'Rate control', bitrate: 'Bit rate',
    preview: 'Preview', height: 'Preview height', refreshrate: 'Preview rate',
};
let shown = []; /* settings as they are on the box */

function note(text) {
    $('settings-note').textContent = text;
}

function fieldFor(setting) {
    let input = document.createElement('input');
    if (setting.kind === 'flag') {
        input.type = 'checkbox';
        input.checked = setting.value;
    } else if (setting.kind === 'mode') {
        input = document.createElement('select');
        input.append(...setting.choices.map((choice) => new Option(choice)));
        input.value = setting.value;
    } else {
        input.type = 'number';
        [input.min, input.max, input.value] = [setting.least, setting.most, setting.value];
    }
    input.id = 'set-' + setting.name;
    return input;
}

function valueOf(setting) {
    const input = $('set-' + setting.name);
    return setting.kind === 'flag' ? input.checked
        : setting.kind === 'number' ? input.valueAsNumber : input.value;
}

function showSettings(settings, enabled) {
    shown = settings;
    $('fields').replaceChildren(...settings.map((setting) => {
        const row = document.createElement('div');
        const label = document.createElement('label');
        label.textContent = (LABELS[setting.name] || setting.name) +
            (setting.unit ? ' (' + setting.unit + ')' : '');
        const input = fieldFor(setting);
        label.htmlFor = input.id;
        input.disabled = !enabled;
        const help = document.createElement('small');
        /* The field takes numbers alone. */
        help.textContent = setting.help.replace(/, such as [^;]*/, '') +
            (setting.kind === 'number' ? '; ' + setting.least + ' to ' + setting.most : '');
        row.append(label, input, help);
        return row;
    }));
    for (const control of [$('apply'), $('logout'), $('save')]) {
        control.disabled = !enabled;
    }
    $('change').hidden = false;
}

async function ask() {
    note('Asking the daemon\u2026');
    let answer;
    try {
        answer = await (await fetch('api/settings', {cache: 'no-store'})).json();
    } catch {
        note('The box does not answer.');
        return;
    }
    $('login').hidden = answer.session || !answer.password_set;
    if (answer.error) {
        note(answer.error);
        $('change').hidden = true;
        return;
    }
    note(answer.session ? ''
        : answer.password_set ? 'Log in to change them.'
        : 'They can be changed here once a password is set on the box: mv3300-panel --set-password');
    showSettings(answer.settings, answer.session);
}

function send(method, path, body) {
    return fetch(path, {method, headers: {'Content-Type': 'application/json'},
                        body: body === undefined ? undefined : JSON.stringify(body)});
}

async function login(event) {
    event.preventDefault();
    const answer = await send('POST', 'api/login', {password: $('password').value});
    $('password').value = '';
    if (answer.ok) {
        await ask();
    } else {
        note((await answer.json()).error);
    }
}

function showResults(answer) {
    const lines = (answer.results || []).map((result) => {
        const good = result.outcome === 'taken' || result.outcome === 'already so';
        return [good, (LABELS[result.name] || result.name) + ': ' + result.outcome +
                (good ? ', now ' + result.now : ' \u2013 ' + result.reason)];
    });
    if (answer.error) {
        lines.push([false, answer.error]);
    }
    if (answer.saved !== undefined) {
        lines.push([answer.saved, answer.saved ? 'Kept for the next start.' : answer.save_error]);
    }
    $('results').replaceChildren(...lines.map(([good, text]) => {
        const line = document.createElement('li');
        line.className = good ? 'good' : 'bad';
        line.textContent = (good ? '\u2713 ' : '\u2715 ') + text;
        return line;
    }));
}

async function apply(event) {
    event.preventDefault();
    const changed = shown.filter((setting) => valueOf(setting) !== setting.value);
    if (changed.length === 0 && !$('save').checked) {
        note('Nothing was changed.');
        return;
    }
    /* To keep what is in effect already, any value will do. */
    const values = changed.length > 0 ? changed : shown.filter(({name}) => name === 'gop');
    $('apply').disabled = true;
    note('Applying; a stream that restarts takes a few seconds\u2026');
    const answer = await send('PUT', 'api/settings' + ($('save').checked ? '?save=1' : ''),
        Object.fromEntries(values.map((setting) => [setting.name, valueOf(setting)])));
    const body = await answer.json();
    $('apply').disabled = false;
    note('');
    showResults(body);
    if (answer.status === 401) {
        await ask();
    } else if (body.settings) {
        showSettings(body.settings, true);
    }
}

/* --- the rest --------------------------------------------------------------------------------- */

$('settings').addEventListener('toggle', () => {
    if ($('settings').open) {
        ask();
    }
});
$('login').addEventListener('submit', login);
$('change').addEventListener('submit', apply);
$('logout').addEventListener('click', async () => {
    await send('POST', 'api/logout');
    ask();
});
$('full').addEventListener('click', () => document.fullscreenElement
    ? document.exitFullscreen() : $('screen').requestFullscreen());
document.addEventListener('visibilitychange', () => {
    if (document.hidden && stream) {
        stream.abort();
    }
});
for (const line of document.querySelectorAll('code.line')) {
    /* Behind another server the box knows neither its name nor its scheme. */
    line.textContent = line.textContent.replace(/https?:\/\/[^/ ]+/, location.origin);
}
window.addEventListener('resize', drawAll);
matchMedia('(prefers-color-scheme: dark)').addEventListener('change', drawAll);
showFigures();
setInterval(mark, 250);
watch();
listen();
plot();
