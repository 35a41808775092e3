'use strict';
const api = '/index/api/';
const patience = 5000;
const element = id => document.getElementById(id);
const say = (id, text) => { element(id).textContent = text; };
const clock = time => new Date(time).toLocaleTimeString([], {hour12: false});

function make(tag, className, text) {
    const made = document.createElement(tag);
    made.className = className;
    made.textContent = text;
    return made;
}

// --- The key ---

// The browser keeps the key for this host and port alone. Each request has it in a header, which no
// other site can set, and never in its address, which the host or a proxy would log.
const storedAs = 'edge-host-key';
let key = localStorage.getItem(storedAs) || '';

class WrongKey extends Error {}

// The link that the host prints has the key behind the "#", which browsers do not send.
function takeKeyFromLink() {
    const link = new URLSearchParams(location.hash.slice(1));
    if (!link.has('key')) return;
    keepKey(link.get('key'));
    history.replaceState(null, '', location.pathname);
}

function keepKey(text) {
    key = text.trim();
    localStorage.setItem(storedAs, key);
}

function askForKey(reason) {
    clearTimeout(timer);
    say('whyLogin', reason);
    showLogin(true);
    element('key').focus();
}

function showLogin(wanted) {
    element('login').hidden = !wanted;
    document.querySelector('main').hidden = wanted;
    element('logout').hidden = wanted;
    if (!wanted) return;
    element('gone').hidden = true;
    showBroker('locked', '');
}

function logIn(event) {
    event.preventDefault();
    keepKey(element('key').value);
    element('key').value = '';
    refreshIn(0);
}

// Loads the page anew, because what it has shown must not stay visible without the key.
function logOut() {
    localStorage.removeItem(storedAs);
    location.reload();
}

// --- Asking the host ---

async function ask(route, options = {}) {
    const limit = new AbortController();
    const timer = setTimeout(() => limit.abort(), patience);
    const headers = {...options.headers, 'Authorization': 'Bearer ' + key};
    try {
        const reply = await fetch(api + route, {...options, headers, signal: limit.signal, cache: 'no-store'});
        if (reply.status === 401) throw new WrongKey('This is not the key of this host.');
        const answer = await reply.json();
        if (answer.code !== 0) throw new Error(answer.msg);
        return answer;
    } finally {
        clearTimeout(timer);
    }
}

let timer, asking = false, present = false, lastSeen = null;

function refreshIn(milliseconds) {
    clearTimeout(timer);
    if (!asking) timer = setTimeout(refresh, milliseconds);
}

// The requests are made one after the other, so that they share one connection: the host serves 16
// connections at a time.
async function refresh() {
    if (!key) return askForKey('');
    asking = true;
    const used = key;
    try {
        showState(await ask('state'));
        lastSeen = Date.now();
        showLogin(false);
        showMessages((await ask('messages?limit=30')).messages);
        showLog((await ask('log?lines=60')).lines);
        if (!present) await arrive();
    } catch (error) {
        if (error instanceof WrongKey && used === key) {
            asking = present = false;
            return askForKey(error.message);
        }
        leave(error);
    }
    asking = false;
    refreshIn(document.hidden ? 5000 : 1000);
}

async function arrive() {
    showRoutes((await ask('getApiList')).routes);
    say('settings', JSON.stringify((await ask('settings')).settings, null, 2));
    present = true;
    setPresence(true);
}

function leave(error) {
    present = false;
    const since = lastSeen ? 'since ' + clock(lastSeen) : 'yet';
    say('gone', 'The host has not answered ' + since + ' (' + error.message + '). Still trying.');
    setPresence(false);
}

function setPresence(there) {
    element('gone').hidden = there;
    element('send').disabled = !there;
    document.body.classList.toggle('gone', !there);
    if (!there) showBroker('host gone', 'down');
}

// --- Showing what it answers ---

function showBroker(text, state) {
    say('broker', text);
    element('broker').className = 'pill ' + state;
}

function duration(seconds) {
    const units = [[86400, 'd'], [3600, 'h'], [60, 'min']];
    for (const [size, unit] of units)
        if (seconds >= size) return Math.floor(seconds / size) + ' ' + unit;
    return seconds + ' s';
}

function showState({host, connection, traffic, counters, queue, pool, server, library, reports}) {
    document.title = host.role + ' – ' + host.name;
    say('name', host.name);
    say('about', `${host.version} · ${host.role} · ${host.clientId} · up ${duration(host.upSeconds)}`);
    if (!element('topic').value) element('topic').value = host.testTopic;
    showBroker(connection.connected ? 'broker connected' : 'no broker', connection.connected ? 'up' : 'down');
    say('received', traffic.received);
    say('sent', traffic.sent);
    const [, qos1, qos2] = connection.accepted;
    say('confirmed', `${connection.confirmed} of ${qos1 + qos2} confirmed, ${connection.refused} refused`);
    say('losses', connection.losses);
    say('address', connection.address);
    say('reports', reports.count);
    say('lastReport', reports.last.length ? `${clock(reports.last[0].time)} from ${reports.last[0].from}` : 'by web hook');
    say('counters', 'Counters: ' + Object.entries(counters).filter(([, count]) => typeof count === 'number').map(([name, count]) => `${name} ${count}`).join(', '));
    say('pool', `Library's pool: ${pool.pendingTasks} tasks, ${pool.threads} of ${pool.capacity} threads.`);
    say('server', `Web server: ${server.connections} connections, ${server.queued} waiting, ${server.refused} refused; `
        + `${server.requests} requests, answered 2xx ${server.status2xx}, 3xx ${server.status3xx}, 4xx ${server.status4xx}, 5xx ${server.status5xx}.`);
    say('library', library.map(({name, value}) => `${name} ${value}`).join('\n'));
    say('queue', `Waiting to be published: ${queue.depth} of ${queue.places}; ${queue.refused} refused.`);
    showRates(traffic.receivedPerSecond, traffic.sentPerSecond);
}

function niceMaximum(value) {
    const power = 10 ** Math.floor(Math.log10(Math.max(value, 4)));
    return [1, 2, 5, 10].map(step => step * power).find(step => step >= value);
}

function showRates(received, sent) {
    const top = niceMaximum(Math.max(...received, ...sent));
    say('scale', top + ' per second');
    say('receivedRate', received[received.length - 1]);
    say('sentRate', sent[sent.length - 1]);
    draw('received', received, top);
    draw('sent', sent, top);
}

function draw(name, counts, top) {
    const points = counts.map((count, i) => `${i * 10},${(99.5 - 99 * count / top).toFixed(1)}`).join('L');
    const group = element('chart').querySelector('g.' + name);
    group.querySelector('.curve').setAttribute('d', 'M' + points);
    group.querySelector('.area').setAttribute('d', `M0,99.5L${points}L${(counts.length - 1) * 10},99.5Z`);
}

let newest = '';

// Replaces the rows only when there is a new message, so that a reader's selection and scrolling
// stay.
function showMessages(messages) {
    const first = messages.length ? messages[0].id + '@' + messages[0].time : '';
    if (first === newest || !first) return;
    newest = first;
    element('messages').replaceChildren(...messages.map(messageRow));
}

function messageRow(message) {
    const row = make('li', '', '');
    const head = make('div', 'small', '');
    const sent = message.direction === 'sent';
    head.append(make('span', message.direction, sent ? '↑ ' : '↓ '), make('span', 'topic', message.topic), ' ',
        make('time', '', clock(message.time) + (sent ? ' sent' : ' received')));
    row.append(head, make('div', 'text', message.text));
    return row;
}

const logLine = /^\d{4}-\d\d-\d\d-(\d\d:\d\d:\d\d)[^:]*:([^:]*):(\d+):(\w+):(.*)$/s;
let lastLines = '';

function showLog(lines) {
    if (lines.join('\n') === lastLines) return;
    lastLines = lines.join('\n');
    const log = element('log');
    const atEnd = log.scrollTop + log.clientHeight >= log.scrollHeight - 20;
    log.replaceChildren(...lines.map(logRow));
    if (atEnd) log.scrollTop = log.scrollHeight;
}

function logRow(line) {
    const parts = logLine.exec(line);
    if (!parts) return make('li', '', line);
    const row = make('li', parts[4], '');
    row.append(make('time', '', parts[1] + ' '), parts[5], ' ', make('span', 'dim', `${parts[2]}:${parts[3]}`));
    return row;
}

function showRoutes(routes) {
    element('routes').replaceChildren(...routes.map(route => {
        const row = make('li', '', '');
        row.append(make('i', '', route.method), make('b', '', route.path), make('div', 'dim small', route.what));
        return row;
    }));
}

// --- Publishing ---

function messageToPublish() {
    const message = JSON.parse(element('message').value);
    if (message === null || typeof message !== 'object' || Array.isArray(message))
        throw new Error('the message is no JSON object');
    return {topic: element('topic').value, message, qos: Number(element('qos').value)};
}

async function publish(event) {
    event.preventDefault();
    say('published', '');
    try {
        const body = JSON.stringify(messageToPublish());
        await ask('publish', {method: 'POST', headers: {'Content-Type': 'application/json'}, body});
        say('published', 'accepted at ' + clock(Date.now()));
    } catch (error) {
        say('published', 'not published: ' + error.message);
    }
    refreshIn(150);
}

element('publish').addEventListener('submit', publish);
element('login').addEventListener('submit', logIn);
element('logout').addEventListener('click', logOut);
window.addEventListener('hashchange', () => { takeKeyFromLink(); refreshIn(0); });
document.addEventListener('visibilitychange', () => refreshIn(0));
takeKeyFromLink();
refresh();
