// The page: who is logged in, and what to do about it.
import { Redfish, root, send, service, sessions } from "./redfish.js";
import { clockText, seconds, secondsLeft, spanText } from "./clock.js";
import * as words from "./words.js";
import { ask, byId, drawPlaces, drawTable, say, setText, show } from "./view.js";

const numberOfPlaces = 8;
// Further ones are only counted.
const maxShown = 64;
const refreshSeconds = 5;
// Without a key, a touch or a movement for so long, nobody is taken to be there, and nothing is
// refreshed any more: that would keep the session alive for ever.
const presenceSeconds = 120;
// So long before its end, a session that nobody uses is spoken of.
const warningSeconds = 60;
// So long it is shown that something has been done.
const doneSeconds = 10;

// All that belongs to one login; null when nobody is logged in.
let login = null;
let lastInput = 0;
let lastPointer = "";

const time = () => new Date().toLocaleTimeString();
// Characters that nobody sees, or that turn others round, are shown by their numbers.
const text = (value) => (typeof value === "string" ? value : JSON.stringify(value ?? "")).replace(
  /[\p{Cc}\u061c\u200b-\u200f\u202a-\u202e\u2066-\u2069\ufeff]/gu,
  (character) => `\\u{${character.codePointAt().toString(16)}}`);
const isInSight = () => document.visibilityState === "visible";
const isActive = () => isInSight() && seconds() - lastInput < presenceSeconds;

// Logging in and out

async function logIn(event) {
  event.preventDefault();
  const button = byId("log-in");
  const [name, password] = [byId("name"), byId("password")];
  if (button.ariaDisabled) {
    return;
  }
  say("login-message");
  const empty = [name, password].find((field) => !field.value);
  if (empty) {
    say("login-message", { title: `Type the ${empty.labels[0].textContent.toLowerCase()}.` });
    empty.focus();
    return;
  }
  button.ariaDisabled = "true";
  button.textContent = "Logging in …";
  const redfish = new Redfish();
  const answer = await redfish.logIn(name.value, password.value);
  const refusal = words.loginFailure(answer);
  if (refusal && redfish.uri) {
    // The session could do nothing, but would take a place.
    await redfish.logOut();
  }
  button.ariaDisabled = null;
  button.textContent = "Log in";
  if (answer.status === 401 || answer.status === 201) {
    password.value = "";
  }
  if (refusal) {
    say("login-message", refusal);
    password.focus();
  } else {
    begin(redfish, answer.body);
  }
}

function begin(redfish, session) {
  const own = sessionFrom(redfish.uri, { status: 200, body: session });
  own.isMine = true;
  login = {
    redfish,
    // Both are known after the first reading.
    timeout: null,
    mayConfigure: null,
    known: new Map([[own.uri, own]]),
    places: Array(numberOfPlaces).fill(null),
    shown: [],
    omitted: 0,
    service: { body: {}, header: () => null },
    change: Promise.resolve(),
    // What the page has put into the field of the timeout.
    filledIn: "",
    refreshing: null,
    lastRefresh: -Infinity,
    doneAt: Infinity,
    isWarned: false,
  };
  lastInput = seconds();
  setText("user", own.user);
  byId("account").hidden = false;
  byId("timeout").value = "";
  byId("timeout").ariaInvalid = null;
  showPassword(false);
  draw();
  show("sessions");
  tick();
}

// Forgets everything of the login and says why.
function finish(reason, kind) {
  login = null;
  byId("question").close();
  byId("account").hidden = true;
  for (const id of ["rows", "places", "question-text", "user", "timeout-text", "left"]) {
    byId(id).replaceChildren();
  }
  say("message");
  say("trouble");
  show("login", byId("name"));
  say("login-message", reason, kind);
  document.title = kind === "bad" ? reason.title : "Sessions";
}

// The session is not there any more.
function over() {
  const { redfish: { lastUse }, timeout } = login;
  const hasExpired = timeout > 0 && seconds() - lastUse >= timeout - 1;
  finish(words.sessionOver(hasExpired, timeout, time()), "bad");
}

async function logOut() {
  const { redfish, timeout } = login;
  const answering = redfish.logOut();
  finish({ title: "Logging out …" }, "note");
  const said = byId("login-message").firstChild;
  const reason = words.loggedOut(await answering, timeout);
  // Somebody may be logging in already.
  if (said.isConnected) {
    say("login-message", reason, reason.advice ? "note" : "good");
  }
}

// Reading

function sessionFrom(uri, { status, body }) {
  const isReadable = status === 200;
  const isRedfish = !isReadable || (body.SessionType ?? "Redfish") === "Redfish";
  return {
    uri,
    id: text(uri.slice(sessions.length + 1)),
    user: isReadable ? text(body.UserName) : null,
    address: isReadable ? text(body.ClientOriginIPAddress) : null,
    // Sessions of other kinds take none, and are ended elsewhere.
    takesPlace: isRedfish,
    // Who may read a session may end it.
    canEnd: isReadable && isRedfish,
    isMine: false,
  };
}

const isSessionUri = (uri) => typeof uri === "string" && uri.startsWith(sessions + "/")
  && /^[^/?#%\\]+$/.test(uri.slice(sessions.length + 1));

// Throws the answer unless it is one of these.
async function expect(answering, ...statuses) {
  const answer = await answering;
  if (!statuses.includes(answer.status)) {
    throw answer;
  }
  return answer;
}

async function readSession({ redfish }, uri) {
  const answer = await expect(redfish.request("GET", uri), 200, 403, 404);
  return answer.status === 404 ? null : sessionFrom(uri, answer);
}

// Reads everything that is shown. Throws the answer that prevents it.
async function read(reader) {
  const get = (uri) => expect(reader.redfish.request("GET", uri), 200);
  const before = reader.service;
  const [collection, settings] = await Promise.all([get(sessions), get(service)]);
  if (reader.mayConfigure === null) {
    // Without a property it changes nothing; it tells whether it would be refused.
    const { status } = await reader.redfish.request("PATCH", service, { body: {} });
    reader.mayConfigure = status === 0 || status >= 500 ? null : status !== 403;
  }
  const members = Array.isArray(collection.body.Members) ? collection.body.Members : [];
  // The latest first.
  const uris = members.map((member) => member?.["@odata.id"]).filter(isSessionUri).reverse();
  const found = await Promise.all(uris.slice(0, maxShown).map((uri) =>
    reader.known.get(uri) ?? readSession(reader, uri)));
  const present = found.filter(Boolean);
  reader.omitted = Math.max(0, uris.length - maxShown);
  reader.known = new Map(present.map((session) => [session.uri, session]));
  // A change that was made meanwhile is newer.
  reader.service = reader.service === before ? settings : reader.service;
  reader.timeout ??= Number(settings.body.SessionTimeout);
  // A session keeps its place, a new one gets the first that is free.
  reader.places = reader.places.map((session) => reader.known.get(session?.uri) ?? null);
  for (const session of present.filter(({ takesPlace }) => takesPlace).reverse()) {
    const free = reader.places.indexOf(null);
    if (free >= 0 && !reader.places.includes(session)) {
      reader.places[free] = session;
    }
  }
  reader.shown = present.sort((one, other) => other.isMine - one.isMine);
}

async function readAndDraw(reader) {
  reader.lastRefresh = seconds();
  reader.failed = null;
  try {
    await read(reader);
    reader.since = time();
  } catch (answer) {
    if (answer.status === undefined) {
      throw answer;
    }
    reader.failed = answer;
  }
  reader.refreshing = null;
  if (login === reader) {
    (reader.failed?.status === 401 ? over : draw)();
    tick();
  }
}

// A reading that is under way is waited for instead.
function refresh() {
  login.refreshing ??= readAndDraw(login);
  return login.refreshing;
}

// Drawing

const others = () => login.shown.filter(({ canEnd, isMine }) => canEnd && !isMine);

function draw() {
  const { failed, service: { body: { ServiceEnabled, SessionTimeout } }, since } = login;
  const isOn = ServiceEnabled !== false;
  const ending = others().length;
  drawPlaces(login.places);
  drawTable(login.shown, isOn, endOne);
  byId("end-others").hidden = !isOn || !ending;
  setText("end-others", login.shown.length > ending + 1 ? "End my other sessions" : "End all others");
  say("trouble", failed ? words.notRefreshed(failed, since ?? "–") : isOn ? null : words.serviceOff,
    failed ? "bad" : "note");
  setText("freshness", (since ? `As of ${since}.` : "Reading …")
    + (login.omitted ? ` ${login.omitted} more are not shown.` : ""));

  const field = byId("timeout");
  byId("timeout-form").hidden = !login.mayConfigure;
  setText("timeout-text", SessionTimeout > 0 ? spanText(SessionTimeout) : "–");
  // What somebody is typing stays.
  if (field.value === login.filledIn) {
    field.value = login.filledIn = String(SessionTimeout ?? "");
  }
}

// What time does: once a second, and when something may have changed.
function tick() {
  if (!login) {
    return;
  }
  if (login.timeout > 0) {
    const left = secondsLeft(login.redfish.lastUse, login.timeout, seconds());
    if (left === 0) {
      over();
      return;
    }
    drawLeft(left);
  }
  if (seconds() - login.doneAt > doneSeconds) {
    login.doneAt = Infinity;
    say("message");
  }
  setText("presence", isActive()
    ? `You are here: the lists are refreshed every ${refreshSeconds} seconds, which counts as use.`
    : "Nobody seems to be here: the lists are not refreshed. Press a key or touch the page.");
  if (isActive() && !login.refreshing && seconds() - login.lastRefresh > refreshSeconds - 0.5) {
    refresh();
  }
}

function drawLeft(left) {
  const isEnding = !isActive() && left <= Math.min(warningSeconds, login.timeout / 2);
  setText("left", clockText(left));
  byId("bar").style.width = `${100 * left / login.timeout}%`;
  document.title = isEnding ? clockText(left) + " left – Sessions" : "Sessions";
  if (isEnding !== login.isWarned) {
    login.isWarned = isEnding;
    login.doneAt = Infinity;
    say("message", isEnding ? {
      title: "Your session is about to expire.",
      advice: "Press a key or touch the page to stay logged in.",
    } : null, "note");
  }
}

// Somebody is there.
function noteInput({ type, screenX, screenY }) {
  if (type === "pointermove") {
    // A mouse that rests is nobody, even where the page moves below it.
    const pointer = `${screenX} ${screenY}`;
    if (pointer === lastPointer) {
      return;
    }
    lastPointer = pointer;
  }
  const wasActive = isActive();
  lastInput = seconds();
  if (!wasActive) {
    tick();
  }
}

// Changing

// Tells how a change went, unless the session is over.
async function conclude(changing, failed, doWhat, done) {
  if (login !== changing) {
    return;
  }
  if (failed?.status === 401) {
    over();
    return;
  }
  say("message", failed ? words.failure(failed, doWhat) : { title: done }, failed ? "bad" : "good");
  login.doneAt = failed ? Infinity : seconds();
  // One under way is older.
  await changing.refreshing;
  await (login === changing && refresh());
}

async function endSessions(ending, title, yes, done) {
  const changing = login;
  if (!await ask(title, ending, yes) || login !== changing) {
    return;
  }
  say("message");
  let failed = null;
  for (const { uri } of ending) {
    const answer = await changing.redfish.request("DELETE", uri);
    // One may have ended by itself meanwhile.
    if (answer.status !== 204 && answer.status !== 404) {
      failed = answer;
      break;
    }
  }
  await conclude(changing, failed, "end it", done);
}

const endOne = (session) => endSessions([session], "End this session?", "End it",
  `The session ${session.id} of ${session.user} has ended.`);

function endOthers() {
  const ending = others();
  const what = ending.length === 1 ? "1 other session" : `${ending.length} other sessions`;
  return endSessions(ending, `End ${what}?`, "End " + what, `You have ended ${what}.`);
}

async function changeTimeout(event) {
  event.preventDefault();
  const changing = login;
  const field = byId("timeout");
  const typed = field.value;
  const value = words.timeoutFrom(typed);
  login.doneAt = Infinity;
  say("message");
  field.ariaInvalid = String(value === null);
  if (value === null) {
    say("message", words.badTimeout);
    field.focus();
    return;
  }
  // One after the other: each changes the entity tag.
  changing.change = changing.change.then(() => changing.redfish.request("PATCH", service,
    { body: { SessionTimeout: value }, etag: changing.service.header("ETag") }));
  const answer = await changing.change;
  const isDone = answer.status === 200;
  if (isDone) {
    changing.service = answer;
  }
  if (isDone || answer.status === 412) {
    // What it is now may be shown.
    changing.filledIn = typed;
  }
  await conclude(changing, isDone ? null : answer, "change it",
    `The timeout is ${spanText(value)} now.`);
}

// The page itself

async function showController() {
  const { body } = await send("GET", root);
  setText("host", location.host);
  setText("controller", typeof body.Name === "string" ? body.Name : "Controller");
}

function showPassword(isShown) {
  byId("password").type = isShown ? "text" : "password";
  byId("show").ariaPressed = String(isShown);
}

byId("login-form").onsubmit = logIn;
byId("show").onclick = () => showPassword(byId("password").type === "password");
byId("log-out").onclick = logOut;
byId("end-others").onclick = endOthers;
byId("timeout-form").onsubmit = changeTimeout;
for (const type of ["keydown", "pointerdown", "pointermove", "wheel", "touchmove"]) {
  addEventListener(type, noteInput, { passive: true });
}
document.addEventListener("visibilitychange", () => {
  lastInput = isInSight() ? seconds() : lastInput;
  tick();
});
// Nobody else could use the session, but it would take a place.
addEventListener("pagehide", () => {
  if (login) {
    login.redfish.logOut();
    finish({ title: "You are logged out." }, "good");
  }
});
setText("bounds", words.boundsText);
setInterval(tick, 1000);
show("login", byId("name"));
showController();
