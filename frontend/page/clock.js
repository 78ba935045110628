// Time: what passes, and how it is told.

const started = { date: Date.now(), running: performance.now() };

// Seconds since the page was opened. One clock may stand still while the machine sleeps, the other
// may be set back: the one that is further on counts.
export function seconds() {
  return Math.max(Date.now() - started.date, performance.now() - started.running) / 1000;
}

// What is left of a session that ends `timeout` seconds after its last use.
export function secondsLeft(lastUse, timeout, now) {
  return Math.min(timeout, Math.max(0, lastUse + timeout - now));
}

// "0:07", "4:59", "1:02:03". A second counts until it is over.
export function clockText(left) {
  const whole = Math.ceil(left);
  const digits = (number) => String(number).padStart(2, "0");
  const minutes = Math.floor(whole / 60) % 60;
  const hours = Math.floor(whole / 3600);
  return (hours ? hours + ":" + digits(minutes) : minutes) + ":" + digits(whole % 60);
}

// "5 minutes", "1 hour 30 minutes", "24 hours".
export function spanText(span) {
  const parts = [
    [Math.floor(span / 3600), "hour"],
    [Math.floor(span / 60) % 60, "minute"],
    [Math.floor(span) % 60, "second"],
  ].filter(([number]) => number > 0);
  return parts.map(([number, unit]) => `${number} ${unit}${number === 1 ? "" : "s"}`).join(" ")
    || "0 seconds";
}
