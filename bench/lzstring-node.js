// Times our decoder (bench_lzstring, driven over a pipe) and node's lz-string on the same
// realistic inputs, in alternating batches, and checks both give back the original text.
// Usage: node lzstring-node.js BENCH_LZSTRING OUTDIR [--rounds N] [--json]
const fs = require("fs");
const path = require("path");
const crypto = require("crypto");
const { spawn, execFileSync } = require("child_process");
const LZString = require("lz-string");
const { inputs } = require(path.join(__dirname, "lzstring-inputs.js"));

const [binary, out] = process.argv.slice(2);
const json = process.argv.includes("--json");
const roundsAt = process.argv.indexOf("--rounds");
const rounds = roundsAt > 0 ? Math.max(3, +process.argv[roundsAt + 1]) : 5;
fs.mkdirSync(out, { recursive: true });

const child = spawn(binary, [], { stdio: ["pipe", "pipe", "inherit"] });
let buffered = "";
const waiting = [];
child.stdout.on("data", (chunk) => {
  buffered += chunk;
  let at;
  while ((at = buffered.indexOf("\n")) >= 0) {
    const line = buffered.slice(0, at);
    buffered = buffered.slice(at + 1);
    waiting.shift()(line);
  }
});
const ask = (command) => new Promise((resolve) => { waiting.push(resolve); child.stdin.write(command + "\n"); });

const stats = (values) => {
  const sorted = [...values].sort((a, b) => a - b);
  return { median: sorted[Math.floor(sorted.length / 2)], min: sorted[0], max: sorted[sorted.length - 1] };
};

(async () => {
  const cases = [];
  for (const [name, text] of inputs()) {
    const compressed = LZString.compressToUTF16(text);
    const file = path.join(out, name + ".bin");
    fs.writeFileSync(file, Buffer.from(compressed, "utf16le"));
    const loaded = await ask("load " + file);
    if (!loaded.startsWith("ok ")) throw new Error("bench_lzstring cannot load " + file);
    const original = Buffer.from(text, "utf16le");
    const sha = crypto.createHash("sha256").update(original).digest("hex");
    const [oursSha] = (await ask(`hash ${cases.length}`)).split(" ");
    const nodeSame = LZString.decompressFromUTF16(compressed) === text;
    if (oursSha !== sha || !nodeSame)
      throw new Error(`${name}: output differs from the original (ours ${oursSha === sha}, node ${nodeSame})`);
    const peak = execFileSync(binary, ["--peak", file]).toString().trim().split(" ").map(Number);
    // A batch takes node about 20 ms; ours decodes the same count.
    const start = process.hrtime.bigint();
    LZString.decompressFromUTF16(compressed);
    const once = Number(process.hrtime.bigint() - start);
    const count = Math.max(3, Math.min(500, Math.round(20e6 / Math.max(1, once))));
    cases.push({ name, compressed, bytes: original.length, ratio: text.length / compressed.length, count,
                 ours: [], node: [], oursCpu: [], nodeCpu: [], faults: [], peak: peak[0] / peak[1] });
  }
  // Ours and node's batches alternate, round after round.
  for (let round = 0; round < rounds; ++round) {
    for (let index = 0; index < cases.length; ++index) {
      const c = cases[index];
      const count = c.count;
      const cpu = process.cpuUsage();
      for (let i = 0; i < count; ++i) {
        const start = process.hrtime.bigint();
        LZString.decompressFromUTF16(c.compressed);
        c.node.push(Number(process.hrtime.bigint() - start));
      }
      const used = process.cpuUsage(cpu);
      c.nodeCpu.push((used.user + used.system) * 1e3 / count); // a batch's mean, ns
      const [times, faults, cpuTimes] = (await ask(`run ${index} ${count}`)).split("|");
      c.ours.push(...times.trim().split(" ").map(Number));
      c.oursCpu.push(...cpuTimes.trim().split(" ").map(Number));
      c.faults.push(+faults);
    }
  }
  child.stdin.end();

  const rows = cases.map((c) => {
    const ours = stats(c.ours);
    const node = stats(c.node);
    const oursCpu = stats(c.oursCpu);
    const nodeCpu = stats(c.nodeCpu);
    const mbs = (ns) => c.bytes / 1e6 / (ns / 1e9);
    return { input: c.name, output_bytes: c.bytes, compression: +c.ratio.toFixed(2),
             ours_mb_s: { median: +mbs(ours.median).toFixed(1), min: +mbs(ours.max).toFixed(1), max: +mbs(ours.min).toFixed(1) },
             ours_us: { median: +(ours.median / 1e3).toFixed(2), min: +(ours.min / 1e3).toFixed(2), max: +(ours.max / 1e3).toFixed(2) },
             node_mb_s: { median: +mbs(node.median).toFixed(1), min: +mbs(node.max).toFixed(1), max: +mbs(node.min).toFixed(1) },
             ours_cpu_mb_s: { median: +mbs(oursCpu.median).toFixed(1), min: +mbs(oursCpu.max).toFixed(1), max: +mbs(oursCpu.min).toFixed(1) },
             ours_cpu_us: +(oursCpu.median / 1e3).toFixed(2),
             node_cpu_mb_s: +mbs(nodeCpu.median).toFixed(1),
             faults_per_decode: +stats(c.faults).median.toFixed(1), peak_over_output: +c.peak.toFixed(2),
             ratio: +(node.median / ours.median).toFixed(2) };
  });
  if (json) {
    for (const r of rows) console.log(JSON.stringify(r));
    return;
  }
  const pad = (s, n) => String(s).padStart(n);
  const range = (r) => `${pad(r.median, 8)} [${pad(r.min, 7)} ..${pad(r.max, 8)}]`;
  console.log(`${"input".padEnd(12)} ${pad("out bytes", 9)} ${pad("x", 5)}  ${pad("ours MB/s [min .. max]", 28)}  ${pad("ours us", 9)}  ${pad("node MB/s [min .. max]", 28)} ${pad("ours/node", 9)}  ${pad("ours CPU MB/s [min .. max]", 28)} ${pad("CPU us", 8)} ${pad("node CPU", 8)} ${pad("faults", 6)} ${pad("peak/out", 8)}`);
  for (const r of rows)
    console.log(`${r.input.padEnd(12)} ${pad(r.output_bytes, 9)} ${pad(r.compression, 5)}  ${pad(range(r.ours_mb_s), 28)}  ${pad(r.ours_us.median, 9)}  ${pad(range(r.node_mb_s), 28)} ${pad(r.ratio + "x", 9)}  ${pad(range(r.ours_cpu_mb_s), 28)} ${pad(r.ours_cpu_us, 8)} ${pad(r.node_cpu_mb_s, 8)} ${pad(r.faults_per_decode, 6)} ${pad(r.peak_over_output, 8)}`);
  console.log(`\n${rounds} rounds of alternating batches; outputs of both checked against the original; ` +
              "CPU: the decoding thread's CPU time, which leaves out waiting for a busy machine (node: a batch's mean); " +
              "faults: minor page faults a decode; peak/out: resident memory a decode adds over its output's size (page-granular: read it for 64 KB and up)");
})().catch((error) => { console.error(error.message); child.kill(); process.exit(1); });
