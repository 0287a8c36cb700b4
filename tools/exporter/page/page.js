// The list of tasks, the one that is looked at, and keeping both up to date.
"use strict";

(() => {
  const byId = (id) => document.getElementById(id);
  const DAY = 86400;
  const SHORTEST_PLOT = 120;
  const { number } = Plots;

  const state = {
    document: null, // the last answer of /api/tasks
    received: 0, // when, by this browser's clock, milliseconds
    rows: new Map(), // by task
    chosen: null, // task that is looked at
    history: null, // its results, or null while they are not here
    identity: "", // what kind of test they are of
    hours: 1,
  };

  // -- words

  function ageText(seconds) {
    for (const [size, unit] of [[86400, "d"], [3600, "h"], [60, "min"]]) {
      if (seconds >= size) {
        return `${Math.floor(seconds / size)} ${unit}`;
      }
    }
    return `${Math.max(0, Math.floor(seconds))} s`;
  }

  const timeText = (time) => new Date(time * 1000).toLocaleString();
  const percent = (value) => (value === null ? "–" : String(+value.toFixed(2)));
  const now = () => state.document.time + (Date.now() - state.received) / 1000;
  const ageOf = (task) => (task["finish-time"] === null ? null : now() - task["finish-time"]);

  // Class and word of a task's state.
  function resultOf(task) {
    if (task.status === "not run") {
      return ["", "not run"];
    }
    if (task.status !== "successful") {
      return ["bad", "failed"];
    }
    if (task.stale) {
      return ["warn", "stale"];
    }
    return task.reason ? ["warn", "no figures"] : ["ok", "ok"];
  }

  const reasonOf = (task) => task.reason || (task.stale ? task["stale-reason"] : null);

  function lossOf(task) {
    const { "sd-loss-pct": sd, "ds-loss-pct": ds } = task["loss-values"];
    return task.type === "udp-jitter" && sd !== null ? [sd, ds] : [task["loss-percent"]];
  }

  // -- the list

  function element(name, className, text) {
    const made = document.createElement(name);
    made.className = className;
    made.textContent = text;
    return made;
  }

  // Of the columns where they stand below each other, on a phone.
  const LABELS = { 3: "Age", 4: "RTT ms", 5: "One-way ms", 6: "Jitter ms", 7: "Loss %", 8: "Runs" };

  function makeRow(id) {
    const row = document.createElement("tr");
    for (let column = 0; column < 9; ++column) {
      const cell = row.insertCell();
      if (column > 2) {
        cell.className = "number";
        cell.dataset.label = LABELS[column];
      }
    }
    const link = element("a", "", String(id));
    link.href = `#task-${id}`;
    row.cells[0].append(link, element("span", "type", ""));
    row.cells[1].append(element("span", "to", ""), element("span", "from", ""));
    row.cells[2].append(element("span", "pill", ""), element("span", "reason", ""));
    return row;
  }

  // Writing only what differs keeps a selection and saves the browser work.
  function setText(target, text) {
    if (target.textContent !== text) {
      target.textContent = text;
    }
  }

  function setValues(cell, values, write) {
    const none = values.every((value) => value === null);
    const texts = none ? ["–"] : values.map(write);
    cell.classList.toggle("none", none);
    if (cell.dataset.shown !== texts.join("/")) {
      cell.dataset.shown = texts.join("/");
      cell.replaceChildren(...texts.map((text) => element("span", "two", text)));
    }
  }

  function fillRow(row, task) {
    const [kind, word] = resultOf(task);
    const cells = row.cells;
    setText(cells[0].lastChild, task.type || "");
    setText(cells[1].firstChild, task["dst-address"] || "–");
    const vrf = task["vrf-instance"] ? ` · VRF ${task["vrf-instance"]}` : "";
    setText(cells[1].lastChild, `from ${task["iface-name"] || task["src-address"] || "–"}${vrf}`);
    cells[2].firstChild.className = `pill ${kind}`;
    setText(cells[2].firstChild, word);
    cells[2].lastChild.className = kind === "bad" ? "reason" : "reason soft";
    setText(cells[2].lastChild, reasonOf(task) || "");
    setValues(cells[4], [task["rtt-values"].avg], number);
    const delay = task["one-way-latency-values"];
    setValues(cells[5], [delay["sd-avg"], delay["ds-avg"]], number);
    setValues(cells[6], [task["jitter-values"]["sd-sd"], task["jitter-values"]["ds-sd"]], number);
    const loss = lossOf(task);
    setValues(cells[7], loss, percent);
    cells[7].classList.toggle("loss-some", loss.some((value) => value > 0));
    setText(cells[8], `${task["successful-count"] ?? "–"} / ${task["failed-count"] ?? "–"}`);
  }

  function isWanted(task) {
    if (byId("failing").checked && resultOf(task)[0] !== "bad") {
      return false;
    }
    const words = byId("filter").value.toLowerCase().split(/\s+/);
    const keys = ["sla-id", "type", "dst-address", "src-address", "iface-name", "vrf-instance", "reason", "stale-reason"];
    const text = keys.map((key) => task[key] ?? "").join(" ").toLowerCase();
    return words.every((word) => text.includes(word));
  }

  function fillCounts(tasks) {
    const bad = tasks.filter((task) => resultOf(task)[0] === "bad").length;
    const warn = tasks.filter((task) => resultOf(task)[0] === "warn").length;
    const parts = [document.createTextNode(`${tasks.length} ${tasks.length === 1 ? "task" : "tasks"} `)];
    for (const [count, kind, word] of [[bad, "bad", "failing"], [warn, "warn", "without fresh figures"]]) {
      if (count > 0) {
        parts.push(element("span", `part ${kind}`, ` · ${count} ${word}`));
      }
    }
    byId("counts").replaceChildren(...parts);
    document.title = bad > 0 ? `(${bad}) IP SLA` : "IP SLA";
  }

  function fillList() {
    const tasks = state.document.tasks;
    const present = new Set(tasks.map((task) => task["sla-id"]));
    for (const [id, row] of state.rows) {
      if (!present.has(id)) {
        row.remove();
        state.rows.delete(id);
      }
    }
    const body = byId("tasks");
    tasks.forEach((task, index) => {
      const id = task["sla-id"];
      if (!state.rows.has(id)) {
        state.rows.set(id, makeRow(id));
      }
      const row = state.rows.get(id);
      if (body.children[index] !== row) {
        body.insertBefore(row, body.children[index] || null);
      }
      fillRow(row, task);
    });
    fillCounts(tasks);
    filterList();
    fillAges();
  }

  function filterList() {
    let shown = 0;
    for (const task of state.document?.tasks ?? []) {
      const row = state.rows.get(task["sla-id"]);
      row.hidden = !isWanted(task);
      shown += row.hidden ? 0 : 1;
    }
    const empty = state.document && shown === 0;
    byId("empty").hidden = !empty;
    byId("empty").textContent = state.rows.size ? "No task is like that." : "No task has finished a run yet.";
  }

  function fillAges() {
    if (!state.document) {
      return;
    }
    for (const task of state.document.tasks) {
      const age = ageOf(task);
      setText(state.rows.get(task["sla-id"]).cells[3], age === null ? "–" : ageText(age));
    }
    setText(byId("updated"), `updated ${ageText((Date.now() - state.received) / 1000)} ago`);
  }

  // -- one task

  const chosenTask = () => state.document?.tasks.find((task) => task["sla-id"] === state.chosen);

  function facts(task) {
    const count = (value) => (value === null ? "–" : String(value));
    const loss = task["loss-values"];
    const rtt = task["rtt-values"];
    const list = [
      ["Last run", [...new Set([task["start-time"], task["finish-time"]])].map(timeText).join(" to ")],
      ["Runs", `${task["successful-count"]} ok, ${task["failed-count"]} failed`],
    ];
    if (task["period-seconds"]) {
      list.push(["Period", `${task["period-seconds"]} s`]);
    }
    if (task.status === "successful") {
      list.push(["Round trip", `${[rtt.min, rtt.avg, rtt.max].map(number).join(" / ")} ms (min / mean / max)`]);
      list.push(["Probes", `${count(task["sd-pkt-count"])} sent, ${count(task["ds-pkt-count"])} answered`]);
    }
    if (loss.skipped !== null) {
      list.push(["Replies", `${count(loss["late-arrival"])} late, ${loss.skipped} unusable, ${loss.duplicate} duplicate`]);
    }
    return list;
  }

  function fillFacts(task) {
    const parts = facts(task).flatMap(([name, text]) => [element("dt", "", name), element("dd", "", text)]);
    byId("facts").replaceChildren(...parts);
  }

  function fillFailures(failures) {
    const MOST = 50;
    byId("failures").hidden = failures.length === 0;
    const items = failures.slice(-MOST).reverse().map(({ time, reason }) => {
      const item = document.createElement("li");
      item.append(element("time", "", timeText(time)), element("span", "", reason));
      return item;
    });
    if (failures.length > MOST) {
      items.push(element("li", "quiet", `and ${failures.length - MOST} before these`));
    }
    byId("failures").querySelector("ol").replaceChildren(...items);
  }

  function showCursor(time) {
    const failure = time === null ? null : state.history.failures.find((each) => each.time === time);
    const text = time === null ? "" : `${timeText(time)}${failure ? `: ${failure.reason}` : ""}`;
    setText(byId("cursor"), text);
    byId("cursor").classList.toggle("bad", Boolean(failure));
  }

  function drawPlots() {
    if (!state.history || !state.document) {
      return;
    }
    const to = now();
    // What is seen for a few minutes only fills the plot nevertheless.
    const first = Math.min(state.history.time[0] ?? to, to - SHORTEST_PLOT);
    const from = Math.max(to - state.hours * 3600, first);
    const failures = state.history.failures.filter(({ time }) => time >= from);
    const drawn = Plots.show(byId("plots"), state.history, { from, to, failures, onCursor: showCursor });
    byId("no-points").hidden = drawn > 0 || failures.length > 0;
    fillFailures(failures);
  }

  function fillDetail() {
    const task = chosenTask();
    byId("detail").hidden = !task;
    document.querySelector("main").classList.toggle("selected", Boolean(task));
    for (const [id, row] of state.rows) {
      row.classList.toggle("chosen", id === state.chosen);
    }
    if (!task) {
      return;
    }
    const [kind] = resultOf(task);
    const vrf = task["vrf-instance"] ? `, VRF ${task["vrf-instance"]}` : "";
    setText(byId("title"), `Task ${task["sla-id"]}: ${task.type || ""} to ${task["dst-address"] || "–"}`);
    setText(byId("path"), `from ${task["iface-name"] || ""} ${task["src-address"] || ""}${vrf}`);
    byId("why").hidden = !reasonOf(task);
    byId("why").className = `why ${kind}`;
    setText(byId("why"), reasonOf(task) || "");
    fillFacts(task);
    for (const button of document.querySelectorAll(".ranges button")) {
      button.setAttribute("aria-pressed", String(Number(button.dataset.hours) === state.hours));
    }
  }

  // -- asking

  // Adds what is newer to what is here.
  function extend(history, newer) {
    const length = history.time.length;
    for (const key of new Set([...Object.keys(history), ...Object.keys(newer)])) {
      if (key !== "sla-id" && key !== "failures") {
        history[key] = history[key] ?? Array(length).fill(null);
        history[key].push(...(newer[key] ?? Array(newer.time.length).fill(null)));
      }
    }
    history.failures.push(...newer.failures);
    const old = history.time.findIndex((time) => time >= now() - DAY);
    if (old > 0) {
      for (const key of Object.keys(history).filter((key) => Array.isArray(history[key]) && key !== "failures")) {
        history[key] = history[key].slice(old);
      }
      history.failures = history.failures.filter(({ time }) => time >= history.time[0]);
    }
  }

  async function loadHistory() {
    const task = chosenTask();
    if (!task) {
      return;
    }
    const identity = [task["sla-id"], task.type, task["dst-address"], task["vrf-instance"]].join("|");
    // A clock set back ends runs before those that are known: the exporter forgot these.
    const setBack = state.history?.time.at(-1) > task["finish-time"];
    const known = identity === state.identity && !setBack ? state.history : null;
    const last = known?.time.at(-1);
    if (known && last === task["finish-time"]) {
      return;
    }
    const since = last === undefined ? "" : `&since=${last + 1}`;
    const response = await fetch(`/api/history?task=${task["sla-id"]}${since}`);
    const newer = await response.json();
    if (state.chosen !== task["sla-id"]) {
      return; // another one was chosen meanwhile
    }
    if (known && identity === state.identity) {
      extend(known, newer);
    } else {
      state.history = newer;
      state.identity = identity;
    }
    drawPlots();
  }

  function showStates(fault) {
    const daemon = byId("daemon");
    daemon.className = `pill ${fault ? "bad" : "ok"}`;
    setText(daemon, fault || "daemon answers");
    document.body.classList.toggle("old", Boolean(fault));
    const clock = state.document?.clock;
    const known = clock && clock.synchronised !== null;
    byId("clock").hidden = !known;
    if (known) {
      const error = clock["estimated-error-ms"];
      const within = error === null ? "" : `, error about ${number(error)} ms`;
      byId("clock").className = `pill ${clock.synchronised ? "ok" : "warn"}`;
      setText(byId("clock"), clock.synchronised ? `clock synchronised${within}` : "clock not synchronised");
    }
  }

  // Seconds until the next question: a long list takes the daemon long.
  const RETRY = 5;
  const pause = () => Math.min(60, Math.max(RETRY, (state.document?.tasks.length ?? 0) / 20));

  async function refresh() {
    let fault = "";
    try {
      const response = await fetch(`/api/tasks?max-age=${Math.floor(pause())}`);
      const answer = await response.json();
      if (response.ok) {
        state.document = answer;
        state.received = Date.now();
        fillList();
        fillDetail();
        await loadHistory();
      } else {
        fault = answer.error || "the daemon does not answer";
      }
    } catch (error) {
      fault = "the exporter does not answer";
    }
    showStates(fault);
    setTimeout(refresh, (fault ? RETRY : pause()) * 1000);
  }

  // -- what a person does

  function choose() {
    const match = /^#task-(\d+)$/.exec(location.hash);
    const id = match ? Number(match[1]) : null;
    if (id !== state.chosen) {
      state.chosen = id;
      state.history = null;
      state.identity = "";
      byId("plots").replaceChildren();
    }
    fillDetail();
    loadHistory().catch(() => {});
  }

  let resize = 0;
  function drawSoon() {
    clearTimeout(resize);
    resize = setTimeout(drawPlots, 100);
  }

  window.addEventListener("hashchange", choose);
  window.addEventListener("resize", drawSoon);
  matchMedia("(prefers-color-scheme: dark)").addEventListener("change", drawPlots);
  byId("filter").addEventListener("input", filterList);
  byId("failing").addEventListener("change", filterList);
  for (const button of document.querySelectorAll(".ranges button")) {
    button.addEventListener("click", () => {
      state.hours = Number(button.dataset.hours);
      fillDetail();
      drawPlots();
    });
  }
  setInterval(fillAges, 1000);
  choose();
  refresh();
})();
