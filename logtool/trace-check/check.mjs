// Loads a Chrome JSON trace with two readers of the format and prints what
// each finds: Chrome DevTools' trace engine (processes, threads and their
// slices, as the Performance panel builds them) and TracerBench's trace model
// (every phase: counters and instant events too, which DevTools leaves out).
//
//   node check.mjs TRACE.json
import fs from 'node:fs';
import {createRequire} from 'node:module';

import * as DevTools from '@paulirish/trace_engine';
import {buildModel} from '@tracerbench/trace-model';

const require = createRequire(import.meta.url);
const version = (name) => {
  const dir = require.resolve(name).replace(/node_modules\/(.*)$/, 'node_modules/');
  return JSON.parse(fs.readFileSync(`${dir}${name}/package.json`, 'utf8')).version;
};

// The engine measures boxes with DOMRect, which node lacks.
globalThis.DOMRect ??= class DOMRect {
  constructor(x = 0, y = 0, width = 0, height = 0) {
    Object.assign(this, {x, y, width, height});
  }
};

const counts = (names) => {
  const m = new Map();
  for (const n of names) m.set(n, (m.get(n) ?? 0) + 1);
  return [...m].sort(([a], [b]) => (a < b ? -1 : 1)).map(([n, c]) => `${n} ${c}`).join(', ');
};
const prefix = (name) => name.split(/[ :]/)[0];
const tod = (us) => {
  const s = Math.floor(us / 1e6), p = (n, w = 2) => String(n).padStart(w, '0');
  return `${p(Math.floor(s / 3600) % 24)}:${p(Math.floor(s / 60) % 60)}:${p(s % 60)}.` +
      p(Math.round(us % 1e6), 6);
};

async function devtools(events) {
  const model = DevTools.TraceModel.Model.createWithAllHandlers();
  await model.parse(events);
  const data = model.parsedTrace().data;
  console.log(`reader @paulirish/trace_engine ${version('@paulirish/trace_engine')}`);
  for (const [pid, proc] of [...data.Renderer.processes].sort(([a], [b]) => a - b)) {
    const name = data.Meta.processNames.get(pid)?.args?.name;
    console.log(`process ${pid} "${name}"`);
    for (const [tid, t] of [...proc.threads].sort(([a], [b]) => a - b)) {
      const slices = t.entries.filter((e) => e.ph === 'X');
      const instants = t.entries.filter((e) => e.ph === 'I');
      console.log(`  thread ${tid} "${t.name}": ${slices.length} slices: ` +
                  counts(slices.map((e) => e.name.replace(/:.*/, ':...'))) +
                  `; ${instants.length} instants`);
    }
  }
}

function tracerbenchModel(events) {
  const model = buildModel(events);
  console.log(`reader @tracerbench/trace-model ${version('@tracerbench/trace-model')}`);
  const decisions = [];
  for (const proc of [...model.processes].sort((a, b) => a.id - b.id)) {
    console.log(`process ${proc.id} "${proc.name}"`);
    // TracerBench keeps tid 0's events on the process itself.
    const main = {id: 0, name: '(process)', events: proc.events.filter((e) => e.tid === 0)};
    for (const t of [main, ...proc.threads].sort((a, b) => a.id - b.id)) {
      const instants = t.events.filter((e) => e.isInstant());
      console.log(`  thread ${t.id} "${t.name}": ${instants.length} instants: ` +
                  counts(instants.map((e) => prefix(e.name))));
      decisions.push(...instants.filter((e) => /^(UP|DOWN|BAL|SEG|BOOST) /.test(e.name)));
    }
    const counters = new Map();
    for (const e of proc.events.filter((e) => e.isCounter())) {
      for (const [series, v] of Object.entries(e.args)) {
        const key = `${e.name}" ${series}`;
        if (!counters.has(key)) counters.set(key, []);
        counters.get(key).push([e.start, v]);
      }
    }
    for (const [key, s] of [...counters].sort(([a], [b]) => (a < b ? -1 : 1))) {
      s.sort((a, b) => a[0] - b[0]);
      const v = s.map((x) => x[1]);
      console.log(`  counter "${key}: ${s.length} samples, first ${v[0]}, ` +
                  `min ${Math.min(...v)}, max ${Math.max(...v)}, last ${v.at(-1)}`);
    }
  }
  console.log(`decisions ${decisions.length}: ${counts(decisions.map((e) => prefix(e.name)))}`);
  for (const e of decisions.sort((a, b) => a.start - b.start))
    console.log(`  ${tod(e.start)} ${e.name} ${JSON.stringify(e.args)}`);
}

const trace = JSON.parse(fs.readFileSync(process.argv[2], 'utf8'));
await devtools(trace.traceEvents);
tracerbenchModel(trace);
