// The console's page: sign-in state, the devices with their live counters,
// a device's recordings (filtered by time) and talk captures. Plain modules,
// no build step; everything comes from this console's own origin.
import { PushToTalk } from "/talk.js";

const $ = (selector) => document.querySelector(selector);

function element(tag, text, attributes = {}) {
  const node = document.createElement(tag);
  if (text !== undefined && text !== null) node.textContent = String(text);
  for (const [name, value] of Object.entries(attributes)) node.setAttribute(name, value);
  return node;
}

function cell(row, text, className) {
  const td = element("td", text);
  if (className) td.className = className;
  row.append(td);
  return td;
}

function bytes(size) {
  if (size < 1024) return `${size} B`;
  if (size < 1024 * 1024) return `${(size / 1024).toFixed(1)} KiB`;
  if (size < 1024 * 1024 * 1024) return `${(size / 1024 / 1024).toFixed(1)} MiB`;
  return `${(size / 1024 / 1024 / 1024).toFixed(2)} GiB`;
}

// "20260101T001000Z" to milliseconds since the epoch, and to "2026-01-01 00:10:00".
function isoMillis(text) {
  const m = /^(\d{4})(\d{2})(\d{2})T(\d{2})(\d{2})(\d{2})Z$/.exec(text);
  return m ? Date.UTC(+m[1], m[2] - 1, +m[3], +m[4], +m[5], +m[6]) : NaN;
}
function isoShown(text) {
  const millis = isoMillis(text);
  return Number.isNaN(millis) ? text : new Date(millis).toISOString().slice(0, 19).replace("T", " ");
}

async function getJson(url) {
  const reply = await fetch(url, { credentials: "same-origin", cache: "no-store" });
  if (reply.status === 401) {
    showSignIn();
    throw new Error("signed out");
  }
  if (!reply.ok) throw new Error(`${url}: HTTP ${reply.status}`);
  return reply.json();
}

const state = { devices: [], selected: null, talk: null };

function showSignIn() {
  $("#signin").hidden = false;
  $("#overview").hidden = $("#device").hidden = $("#whoami").hidden = true;
  const asked = new URLSearchParams(location.search).get("signin");
  if (asked) {
    $("#signin-message").hidden = false;
    $("#signin-message").textContent = asked === "throttled"
      ? "Too many failed sign-ins: wait a minute and try again."
      : "Sign-in refused: wrong user or password.";
  }
}

function renderDevices() {
  const body = $("#devices tbody");
  body.replaceChildren();
  for (const device of state.devices) {
    const row = element("tr", null, { "data-dev-index": device.devIndex });
    if (state.selected === device.devIndex) row.className = "selected";
    cell(row, device.name || "—");
    cell(row, "").append(element("code", device.devIndex));
    cell(row, `${device.address}:${device.rtspPort}`);
    cell(row, device.talkChannel ?? "—", "number");
    cell(row, device.codec ?? "—");
    cell(row, device.recordingCount, "number recording-count");
    cell(row, device.downloadsFromConsole, "number downloads");
    cell(row, device.talkChannel === undefined ? "—" : device.talkRunning ? "running" : "idle", "talk-running");
    const open = element("button", "Open", { type: "button", class: "open-device" });
    open.addEventListener("click", () => selectDevice(device.devIndex));
    cell(row, "").append(open);
    body.append(row);
  }
}

// Live counters from the server; the page never polls.
function listen() {
  const socket = new WebSocket(`${location.protocol === "https:" ? "wss" : "ws"}://${location.host}/ws/events`);
  socket.onopen = () => { $("#live").textContent = "live"; };
  socket.onmessage = (event) => {
    const update = JSON.parse(event.data);
    $("#open-downloads").textContent = update.openDownloads;
    $("#open-talks").textContent = update.openTalks;
    for (const fresh of update.devices) {
      const device = state.devices.find((d) => d.devIndex === fresh.devIndex);
      if (device) Object.assign(device, fresh);
    }
    renderDevices();
  };
  socket.onclose = () => {
    $("#live").textContent = "reconnecting…";
    setTimeout(listen, 2000);
  };
}

function utcInputMillis(input) {
  return input.value ? Date.parse(input.value + "Z") : NaN;
}

function renderRecordings() {
  const device = state.devices.find((d) => d.devIndex === state.selected);
  const body = $("#recordings tbody");
  body.replaceChildren();
  if (!device) return;
  const from = utcInputMillis($("#filter-from"));
  const to = utcInputMillis($("#filter-to"));
  for (const recording of device.recordings) {
    // A recording is shown when it overlaps the range.
    if (!Number.isNaN(from) && isoMillis(recording.endtime) < from) continue;
    if (!Number.isNaN(to) && isoMillis(recording.starttime) > to) continue;
    const row = element("tr", null, { "data-name": recording.name });
    cell(row, isoShown(recording.starttime));
    cell(row, isoShown(recording.endtime));
    cell(row, recording.name);
    cell(row, bytes(recording.size), "number");
    const query = new URLSearchParams({ device: device.devIndex, name: recording.name });
    cell(row, "").append(element("a", "Download", { href: `/download?${query}`, download: recording.name,
                                                    class: "download" }));
    body.append(row);
  }
}

async function renderCaptures() {
  const devIndex = state.selected;
  const { captures } = await getJson(`/api/captures?${new URLSearchParams({ device: devIndex })}`);
  if (devIndex !== state.selected) return;
  const body = $("#captures tbody");
  body.replaceChildren();
  for (const capture of captures) {
    const query = new URLSearchParams({ device: devIndex, name: capture.name });
    const row = element("tr", null, { "data-name": capture.name });
    cell(row, isoShown(capture.modified));
    cell(row, capture.name);
    cell(row, bytes(capture.size), "number");
    cell(row, "").append(element("audio", null, { controls: "", preload: "none", src: `/capture?${query}` }));
    query.set("download", "1");
    cell(row, "").append(element("a", "Download", { href: `/capture?${query}`, download: capture.name }));
    body.append(row);
  }
}

function selectDevice(devIndex) {
  state.selected = devIndex;
  const device = state.devices.find((d) => d.devIndex === devIndex);
  $("#device").hidden = false;
  $("#device-title").textContent = `${device.name || ""} ${device.devIndex}`;
  renderDevices();
  renderRecordings();
  renderCaptures().catch(() => {});
  const why = device.talkChannel === undefined ? "This device does not talk." : device.talkFromConsole;
  $("#talk-unavailable").hidden = !why;
  $("#talk-unavailable").textContent = why || "";
  $("#talk-button").disabled = Boolean(why);
  state.talk?.release();
  state.talk = why ? null : new PushToTalk(devIndex, {
    status: (text) => { $("#talk-status").textContent = text; },
    heard: (hertz) => { $("#heard-frequency").textContent = `${Math.round(hertz)} Hz`; },
    ended: () => { renderCaptures().catch(() => {}); },
  });
}

async function main() {
  let session;
  try {
    session = await getJson("/api/session");
  } catch {
    return;
  }
  $("#whoami").hidden = false;
  $("#user-name").textContent = session.user;
  $("#overview").hidden = false;
  const listing = await getJson("/api/devices");
  state.devices = listing.devices;
  $("#open-downloads").textContent = listing.openDownloads;
  $("#open-talks").textContent = listing.openTalks;
  renderDevices();
  listen();
  $("#filter-from").addEventListener("input", renderRecordings);
  $("#filter-to").addEventListener("input", renderRecordings);
  $("#filter-clear").addEventListener("click", () => {
    $("#filter-from").value = $("#filter-to").value = "";
    renderRecordings();
  });
  const button = $("#talk-button");
  const press = (event) => { event.preventDefault(); state.talk?.press(); };
  const release = () => state.talk?.release();
  button.addEventListener("pointerdown", press);
  button.addEventListener("pointerup", release);
  button.addEventListener("pointerleave", release);
  button.addEventListener("keydown", (event) => { if (event.key === " " && !event.repeat) press(event); });
  button.addEventListener("keyup", (event) => { if (event.key === " ") release(); });
  if (state.devices.length === 1) selectDevice(state.devices[0].devIndex);
}

main();
