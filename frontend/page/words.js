// What went wrong, and what to do about it. What stands between backquotes is to be typed.
import { spanText } from "./clock.js";

function entriesOf({ body }) {
  const entries = body.error?.["@Message.ExtendedInfo"] ?? body["@Message.ExtendedInfo"];
  return Array.isArray(entries) ? entries.map(Object) : [];
}

// The message of this name, of whatever registry and version; undefined when there is none.
const message = (answer, name) =>
  entriesOf(answer).find(({ MessageId }) => String(MessageId).endsWith("." + name));

const textOf = (value) => typeof value === "string" ? value : "";

const off = "The session service is switched off.";

const unreachable = "The controller cannot be reached.";
const checkNetwork = "Check your network, and whether the controller has power.";
const runCheck = "If it goes on, run `sessionctl check` on the controller";

// `doWhat` completes "then ... again".
function generalFailure(answer, doWhat) {
  if (answer.status === 0) {
    return { title: unreachable, advice: checkNetwork + " Then try again." };
  } else if (answer.status === 503) {
    return {
      title: "The controller cannot do this now.",
      advice: "Its store is away, or its session service does not answer. Wait "
        + `${answer.header("Retry-After") ?? 5} seconds, then ${doWhat} again. `
        + runCheck + ": it says what is missing.",
    };
  }
  const { Message, Resolution } = entriesOf(answer)[0] ?? {};
  return {
    title: `The controller refuses this (status ${answer.status}).`,
    advice: `${textOf(Message)} ${textOf(Resolution)}`.trim()
      || "Try again. If it goes on, look into the controller's logs.",
  };
}

function noPlace(answer) {
  const resolution = textOf(message(answer, "SessionLimitExceeded").Resolution);
  // One that is not the registry's says which limit it is.
  return /^(This user|The last)/.test(resolution)
    ? { title: "There is no place for you.", advice: resolution }
    : {
      title: "All eight places are taken.",
      advice: "Ask somebody to log out, or wait until a session expires, and log in again. Whoever "
        + "is root on the controller can make room: `sessionctl list` shows the sessions, "
        + "`sessionctl delete ID` ends one.",
    };
}

// Why a login leads to no session; null when it does.
export function loginFailure(answer) {
  if (message(answer, "PasswordChangeRequired")) {
    return {
      title: "Your password has to be changed first.",
      advice: "It is right, but has expired, and this page cannot change it. Change it where your "
        + "account is kept (for one of the controller's own, with `passwd` there), or ask whoever "
        + "manages the accounts for a new one. Then log in again.",
    };
  } else if (answer.status === 201) {
    return null;
  } else if (message(answer, "SessionLimitExceeded")) {
    return noPlace(answer);
  } else if (message(answer, "ServiceDisabled")) {
    return {
      title: off,
      advice: "Nobody can log in until it is switched on. Ask whoever looks after the controller "
        + "to do that there.",
    };
  } else if (answer.status === 401) {
    return {
      title: "The user name or the password is wrong.",
      advice: "Type both once more; capital and small letters differ. After many wrong passwords "
        + "the next login takes longer.",
    };
  } else if (message(answer, "StringValueTooLong")) {
    return {
      title: "The user name or the password is too long.",
      advice: "A name has 255 bytes at most, a password 1024. Type both once more.",
    };
  } else if (answer.status === 403) {
    return {
      title: "This account may not log in here.",
      advice: "Ask whoever manages the accounts to give it the privilege Login.",
    };
  } else if (answer.status === 429) {
    return {
      title: "Too many logins are waiting.",
      advice: `Wait ${answer.header("Retry-After") ?? 5} seconds, then log in again.`,
    };
  }
  return generalFailure(answer, "log in");
}

// Why something else failed.
export function failure(answer, doWhat) {
  if (message(answer, "ServiceDisabled")) {
    return serviceOff;
  } else if (answer.status === 403) {
    return {
      title: "You may not do this.",
      advice: "Ask somebody who has the privilege ConfigureManager.",
    };
  } else if (answer.status === 412) {
    return {
      title: "Somebody else has changed this meanwhile.",
      advice: "Look at what it is now, and change it again if you still want to.",
    };
  }
  return generalFailure(answer, doWhat);
}

export const serviceOff = {
  title: off,
  advice: "Until it is switched on at the controller, nobody can log in and no session can be "
    + "ended. Those that nobody uses expire by themselves.",
};

// Why the lists, which are from the time `since`, are not fresh.
export function notRefreshed(answer, since) {
  return {
    title: answer.status ? "The controller does not answer in full." : unreachable,
    advice: (answer.status ? `Its store may be away. ${runCheck}.` : checkNetwork)
      + ` What you see is from ${since}. This page tries again by itself.`,
  };
}

// The own session is over, at this time.
export function sessionOver(hasExpired, timeout, time) {
  return {
    title: hasExpired ? "Your session has expired." : "Your session has been ended.",
    advice: (hasExpired ? `At ${time} it had not been used for ${spanText(timeout)}.`
      : "Somebody has ended it, or the controller has started anew.") + " Log in again to go on.",
  };
}

// After logging out.
export function loggedOut(answer, timeout) {
  return answer.status === 204 || answer.status === 401 ? { title: "You are logged out." } : {
    title: "You are logged out here, but your session has not ended yet.",
    advice: `${failure(answer, "").title} The session expires by itself${
      timeout > 0 ? " in " + spanText(timeout) : ""}; nobody can use it any more.`,
  };
}

const minTimeout = 30;
const maxTimeout = 86400;

export const boundsText = `${minTimeout} to ${maxTimeout} (${spanText(minTimeout)} to ${
  spanText(maxTimeout)}), for those who log in from then on. Sessions that exist keep theirs.`;

export const badTimeout = {
  title: "This timeout is not possible.",
  advice: `Type a whole number from ${minTimeout} to ${maxTimeout}.`,
};

// Returns the number that is typed; null when it is none within the bounds.
export function timeoutFrom(typed) {
  const value = /^\s*\d+\s*$/.test(typed) ? Number(typed) : 0;
  return value >= minTimeout && value <= maxTimeout ? value : null;
}
