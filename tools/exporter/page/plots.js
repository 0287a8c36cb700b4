// The four plots of one task: what they show, how they look, and one cursor for all of them.
"use strict";

const Plots = (() => {
  const SYNC = "task";
  const HEIGHT = 132;
  // A pause this much longer than usual is drawn as one.
  const LONG_PAUSE = 3;

  // Column of the history, name in the legend, colour.
  const KINDS = [
    {
      name: "Round trip",
      unit: "ms",
      lines: [["rtt-avg", "mean", "--plot-one"], ["rtt-min", "min", "--plot-band"], ["rtt-max", "max", "--plot-band"]],
      band: true,
    },
    { name: "One-way delay", unit: "ms", lines: [["sd-avg", "SD", "--plot-one"], ["ds-avg", "DS", "--plot-two"]] },
    { name: "Jitter", unit: "ms", lines: [["sd-sd", "SD", "--plot-one"], ["ds-sd", "DS", "--plot-two"]] },
    {
      name: "Loss",
      unit: "%",
      lines: [
        ["loss-pct", "lost", "--plot-one"],
        ["sd-loss-pct", "SD", "--plot-one"],
        ["ds-loss-pct", "DS", "--plot-two"],
      ],
      least: 1,
    },
  ];

  const colour = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

  function number(value) {
    if (value === null || value === undefined) {
      return "–";
    }
    const size = Math.abs(value);
    const digits = size >= 1000 ? 0 : size >= 100 ? 1 : size >= 10 ? 2 : 3;
    return value.toFixed(digits);
  }

  // Row numbers of the history with a -1 where a pause was unusually long.
  function rows(times) {
    const steps = [];
    for (let index = 1; index < times.length; ++index) {
      steps.push(times[index] - times[index - 1]);
    }
    const usual = steps.length ? [...steps].sort((a, b) => a - b)[steps.length >> 1] : 0;
    const result = [];
    times.forEach((time, index) => {
      if (index > 0 && usual > 0 && time - times[index - 1] > LONG_PAUSE * usual) {
        result.push(-1);
      }
      result.push(index);
    });
    return result;
  }

  const pick = (column, chosen) => chosen.map((row) => (row < 0 ? null : column[row]));
  const pickTimes = (times, chosen) =>
    chosen.map((row, index) => (row < 0 ? times[chosen[index - 1]] + 1 : times[row]));

  // A mark for each failed run, over the whole height.
  function drawFailures(plot, failures) {
    const { ctx, bbox } = plot;
    ctx.save();
    ctx.strokeStyle = colour("--plot-failed");
    ctx.fillStyle = ctx.strokeStyle;
    ctx.lineWidth = devicePixelRatio;
    const tip = 4 * devicePixelRatio;
    for (const { time } of failures) {
      const x = Math.round(plot.valToPos(time, "x", true));
      if (x < bbox.left || x > bbox.left + bbox.width) {
        continue;
      }
      ctx.beginPath();
      ctx.moveTo(x, bbox.top);
      ctx.lineTo(x, bbox.top + bbox.height);
      ctx.stroke();
      ctx.beginPath();
      ctx.moveTo(x - tip, bbox.top);
      ctx.lineTo(x + tip, bbox.top);
      ctx.lineTo(x, bbox.top + 1.5 * tip);
      ctx.fill();
    }
    ctx.restore();
  }

  function seriesOf(lines) {
    return [
      {},
      ...lines.map(([, label, name]) => ({
        label,
        stroke: colour(name),
        width: 1.6,
        points: name === "--plot-band" ? { show: false } : { size: 4, fill: colour(name) },
        value: (plot, value) => number(value),
      })),
    ];
  }

  function clockText(tick, step) {
    const parts = { hour: "2-digit", minute: "2-digit", hourCycle: "h23" };
    return new Date(tick * 1000).toLocaleTimeString([], step < 60 ? { ...parts, second: "2-digit" } : parts);
  }

  function optionsOf(kind, lines, view) {
    const axis = {
      stroke: colour("--quiet"),
      font: "11px system-ui, sans-serif",
      grid: { stroke: colour("--plot-grid"), width: 1 },
      ticks: { show: false },
    };
    const options = {
      width: view.width,
      height: HEIGHT,
      padding: [8, 30, 0, 0],
      legend: { markers: { width: 2 } },
      cursor: { sync: { key: SYNC }, drag: { x: false, y: false }, points: { size: 7 } },
      scales: {
        x: { time: true, range: () => [view.from, view.to] },
        y: { range: (plot, low, high) => [0, Math.max((high || 0) * 1.1, kind.least || 0) || 1] },
      },
      axes: [
        {
          ...axis,
          size: 24,
          space: 80,
          values: (plot, ticks, axisIndex, space, step) => ticks.map((tick) => clockText(tick, step)),
        },
        { ...axis, size: 52, space: 26, values: (plot, ticks) => ticks.map((tick) => String(+tick.toPrecision(6))) },
      ],
      series: seriesOf(lines),
      hooks: {
        draw: [(plot) => drawFailures(plot, view.failures)],
        setCursor: [(plot) => view.onCursor(plot.cursor.idx === null ? null : plot.data[0][plot.cursor.idx])],
      },
    };
    const [high, low] = ["rtt-max", "rtt-min"].map((name) => 1 + lines.findIndex(([column]) => column === name));
    if (kind.band && high > 0 && low > 0) {
      options.bands = [{ series: [high, low], fill: colour("--plot-band") }];
    }
    return options;
  }

  function draw(target, kind, history, view) {
    const lines = kind.lines.filter(([column]) => history[column]);
    if (lines.length === 0) {
      return null;
    }
    const box = document.createElement("div");
    box.className = "plot";
    const title = document.createElement("h3");
    title.textContent = kind.name;
    const unit = document.createElement("small");
    unit.textContent = kind.unit;
    title.append(unit);
    box.append(title);
    target.append(box);
    const chosen = rows(history.time);
    const data = [pickTimes(history.time, chosen), ...lines.map(([column]) => pick(history[column], chosen))];
    return new uPlot(optionsOf(kind, lines, view), data, box);
  }

  let drawn = [];

  // Draws `history` anew into `target`. `view`: from, to, failures, onCursor(time or null).
  function show(target, history, view) {
    drawn.forEach((plot) => plot.destroy());
    target.replaceChildren();
    view.width = Math.max(target.clientWidth, 200);
    drawn = KINDS.map((kind) => draw(target, kind, history, view)).filter((plot) => plot !== null);
    return drawn.length;
  }

  return { show, number };
})();
