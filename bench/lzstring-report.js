// Merges node.json with Google Benchmark's JSON into the report.
// Usage: node lzstring-report.js NODE_JSON BENCH_JSON [--json]
const fs = require("fs");
const node = JSON.parse(fs.readFileSync(process.argv[2], "utf8"));
const bench = JSON.parse(fs.readFileSync(process.argv[3], "utf8"));
const json = process.argv.includes("--json");

const rows = [];
for (const [name, n] of Object.entries(node)) {
  const median = bench.benchmarks.find((b) => b.run_name === name && b.aggregate_name === "median");
  if (!median) continue;
  const ours = median.bytes_per_second / 1e6;
  rows.push({ input: name, output_bytes: n.output_bytes, ours_mb_s: +ours.toFixed(1),
              node_mb_s: +n.node_mb_s.toFixed(1), ratio: +(ours / n.node_mb_s).toFixed(1),
              ours_us: median.real_time });
}
if (json) {
  for (const r of rows) {
    const { ours_us, ...fields } = r;
    console.log(JSON.stringify(fields));
  }
} else {
  const pad = (s, n) => String(s).padStart(n);
  console.log(`${"input".padEnd(18)} ${pad("output bytes", 12)} ${pad("ours MB/s", 10)} ${pad("node MB/s", 10)} ${pad("ratio", 7)}`);
  for (const r of rows)
    console.log(`${r.input.padEnd(18)} ${pad(r.output_bytes, 12)} ${pad(r.ours_mb_s, 10)} ${pad(r.node_mb_s, 10)} ${pad(r.ratio + "x", 7)}`);
  const one = rows.find((r) => r.input === "json-1MB");
  const ten = rows.find((r) => r.input === "json-10MB");
  if (one && ten)
    console.log(`\n10MB / 1MB decode time: ${(ten.ours_us / one.ours_us).toFixed(1)}x (linear is about 10x)`);
}
