// Redfish requests, and the token of a login. It is kept here only: it is gone with the page.
import { seconds } from "./clock.js";

export const root = "/redfish/v1";
export const service = root + "/SessionService";
export const sessions = service + "/Sessions";

const answerMilliseconds = 30000;

function objectOf(text) {
  try {
    return Object(JSON.parse(text));
  } catch {
    return {};
  }
}

// Returns the answer: status (0 when none came), body (an object, perhaps empty), header (a
// function). Options: token, body, etag (the one that the resource must have), keepalive (the
// request goes on when the page is gone).
export async function send(method, path, { token, body, etag, keepalive } = {}) {
  const headers = { Accept: "application/json" };
  const add = (name, value) => value && (headers[name] = value);
  add("X-Auth-Token", token);
  add("Content-Type", body && "application/json");
  add("If-Match", etag);
  try {
    const response = await fetch(path, {
      method,
      headers,
      body: body && JSON.stringify(body),
      cache: "no-store",
      // Nor does the browser ask for a password then.
      credentials: "omit",
      redirect: "error",
      keepalive,
      signal: AbortSignal.timeout(answerMilliseconds),
    });
    return {
      status: response.status,
      body: objectOf(await response.text()),
      header: (name) => response.headers.get(name),
    };
  } catch {
    return { status: 0, body: {}, header: () => null };
  }
}

export class Redfish {
  #token = null;
  // The session's address.
  uri = null;
  // When the controller has last seen the token, in seconds of the page's clock.
  lastUse = 0;

  async logIn(UserName, Password) {
    const sent = seconds();
    const answer = await send("POST", sessions, { body: { UserName, Password } });
    if (answer.status === 201) {
      this.#token = answer.header("X-Auth-Token");
      this.uri = answer.header("Location");
      this.lastUse = sent;
    }
    return answer;
  }

  // A request with the token, which is a use of the session.
  async request(method, path, options) {
    const sent = seconds();
    const answer = await send(method, path, { ...options, token: this.#token });
    if (answer.status > 0 && answer.status < 500 && answer.status !== 401) {
      this.lastUse = Math.max(this.lastUse, sent);
    }
    return answer;
  }

  // Logs out, even when the page is closed at once, and forgets the token whatever the answer is.
  logOut() {
    const answer = this.request("DELETE", this.uri, { keepalive: true });
    this.#token = null;
    return answer;
  }
}
