// What the page shows. Whatever comes from the controller becomes text, never markup.

export const byId = (id) => document.getElementById(id);

// Makes an element. Strings among the children become text.
function element(tag, attributes, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    made.setAttribute(name, value);
  }
  made.append(...children);
  return made;
}

// A text whose direction of writing affects nothing around it.
const isolated = (text) => element("bdi", {}, text);
const code = (text) => element("code", {}, isolated(text));
const mark = () => element("span", { class: "mark" }, "you");

// What the user may not read is null.
const shown = (text) => text === null ? element("i", {}, "not shown to you") : isolated(text);

// Changes a text only where it differs, so that nothing is read out without a reason.
export function setText(id, text) {
  const place = byId(id);
  if (place.textContent !== text) {
    place.textContent = text;
  }
}

// Says something in a region, or clears it (without words). `kind`: "good", "bad" or "note".
export function say(id, words, kind = "bad") {
  const region = byId(id);
  const said = JSON.stringify(words ?? "");
  if (region.dataset.said === said) {
    return;
  }
  region.dataset.said = said;
  region.dataset.kind = kind;
  region.replaceChildren(...words ? [element("strong", {}, words.title)] : []);
  if (words?.advice) {
    region.append(element("p", {}, ...words.advice.split("`").map((part, i) =>
      i % 2 ? element("code", {}, part) : part)));
  }
}

// Shows one of the page's two views and leads the focus to it.
export function show(id, focus = byId(id).querySelector("h1")) {
  for (const view of document.querySelectorAll("main")) {
    view.hidden = view.id !== id;
  }
  focus.focus();
}

// Draws the places: each has a session or null.
export function drawPlaces(places) {
  setText("places-title", `${places.filter(Boolean).length} of ${places.length} places taken`);
  byId("places").replaceChildren(...places.map((session) => {
    const state = !session ? "free" : session.isMine ? "mine" : "taken";
    const who = session ? session.user ?? "somebody" : "free";
    const place = element("li", { class: state, title: who },
      byId("person").content.cloneNode(true), isolated(who));
    place.append(...session?.isMine ? [mark()] : []);
    return place;
  }));
}

function rowOf(session, end) {
  const cell = (label, ...children) =>
    element("td", { role: "cell", "data-label": label }, ...children);
  const head = element("th", { role: "rowheader", scope: "row" }, shown(session.user));
  const action = cell("");
  if (session.isMine) {
    head.append(" ", mark());
  } else if (session.canEnd) {
    const button = element("button", {}, "End",
      element("span", { class: "unseen" }, ` the session ${session.id} of ${session.user}`));
    button.onclick = () => end(session);
    action.append(button);
  }
  return element("tr", { role: "row", "data-uri": session.uri }, head,
    cell("Address", shown(session.address)), cell("Session", code(session.id)), action);
}

// Draws the table. Rows that are there already stay, and with them the focus.
export function drawTable(sessions, mayEnd, end) {
  const rows = byId("rows");
  const hadFocus = rows.contains(document.activeElement);
  const old = new Map(Array.from(rows.children, (row) => [row.dataset.uri, row]));
  sessions.forEach((session, i) => {
    const row = old.get(session.uri) ?? rowOf(session, end);
    old.delete(session.uri);
    for (const button of row.querySelectorAll("button")) {
      button.hidden = !mayEnd;
    }
    if (rows.children[i] !== row) {
      rows.insertBefore(row, rows.children[i] ?? null);
    }
  });
  old.forEach((row) => row.remove());
  if (hadFocus && !rows.contains(document.activeElement)) {
    byId("table-title").focus();
  }
}

// Asks before sessions are ended. Resolves to whether the answer is yes.
export function ask(title, sessions, yes) {
  const dialog = byId("question");
  setText("question-title", title);
  setText("yes", yes);
  byId("question-text").replaceChildren(
    element("ul", {}, ...sessions.map(({ user, address, id }) =>
      element("li", {}, isolated(user), " from ", isolated(address), ", ", code(id)))),
    "Their users have to log in again.");
  dialog.returnValue = "no";
  dialog.showModal();
  return new Promise((resolve) => {
    // It may be told late, when the next question is there already.
    dialog.onclose = () => dialog.open || resolve(dialog.returnValue === "yes");
  });
}

for (const answer of ["yes", "no"]) {
  byId(answer).onclick = () => byId("question").close(answer);
}
