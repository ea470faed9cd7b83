// Writes lz-string UTF-16 test vectors: NAME.bin holds the compressed text as
// UTF-16LE; manifest.tsv holds, per vector, what the reference decoder gives:
// "text" with the output's length and SHA-256 (of its UTF-16LE bytes), "empty" or "null".
const fs = require("fs");
const path = require("path");
const crypto = require("crypto");
const LZString = require("lz-string");
const { prng, jsonRecords, nearRandom } = require(path.join(__dirname, "./lzdata.js"));

const out = process.argv[2];
fs.mkdirSync(out, { recursive: true });
for (const f of fs.readdirSync(out)) if (f.endsWith(".bin") || f === "manifest.tsv") fs.unlinkSync(path.join(out, f));

// The reference decoder over the stream, reading past the end as the
// terminating zero (code 0 minus 32), as the library does.
function reference(compressed) {
  const n = compressed.length;
  if (n === 0) return "";
  return LZString._decompress(n, 16384, (i) => (i < n ? compressed.charCodeAt(i) - 32 : -32));
}

const rows = [];
const seen = new Set();
function add(name, compressed) {
  if (seen.has(name)) return null;
  seen.add(name);
  const expected = reference(compressed);
  fs.writeFileSync(path.join(out, name + ".bin"), Buffer.from(compressed, "utf16le"));
  if (expected === null) rows.push([name, "null", 0, ""]);
  else if (expected === "") rows.push([name, "empty", 0, ""]);
  else {
    const bytes = Buffer.from(expected, "utf16le");
    rows.push([name, "text", expected.length, crypto.createHash("sha256").update(bytes).digest("hex")]);
  }
  return expected;
}

const texts = {
  "empty": "",
  "one-ascii": "a",
  "one-latin1": "\u00e9",
  "one-bmp": "\u4e2d",
  "one-astral": "\u{1F600}",
  "two-same": "aa",
  "self-reference": "ababababababababab",
  "growth-words": Array.from({ length: 3000 }, (_, i) => "w" + i.toString(36)).join(" "),
  "non-latin": "Grüße, 世界! Привет, мир. こんにちは 🌍🚀 𝔘𝔫𝔦𝔠𝔬𝔡𝔢 ".repeat(40),
  "astral-mixed": Array.from({ length: 500 }, (_, i) => String.fromCodePoint(0x1f300 + (i % 700), 0x4e00 + i)).join(""),
  "repetitive": "a".repeat(100000),
  "repetitive-pattern": "{\"status\":2,\"data\":[]}".repeat(5000),
  "near-random": nearRandom(20000, 7),
  "json-small": jsonRecords(2000, 1),
  "json-1mb": jsonRecords(1100000, 2),
};

const streams = {};
for (const [name, text] of Object.entries(texts)) {
  const compressed = LZString.compressToUTF16(text);
  streams[name] = compressed;
  const decoded = add(name, compressed);
  if (decoded !== text && !(text === "" && decoded === "")) throw new Error("reference round trip failed: " + name);
}

// Streams cut before their end marker, at several places.
for (const name of ["one-ascii", "self-reference", "growth-words", "non-latin", "json-small"]) {
  const s = streams[name];
  const cuts = new Set([1, 2, Math.floor(s.length / 2), s.length - 3, s.length - 2].filter((c) => c > 0 && c < s.length));
  for (const cut of cuts) add(`cut-${name}-${cut}`, s.slice(0, cut));
}

// Corrupted back-references and other damage: bits flipped inside the stream.
const r = prng(99);
for (const name of ["self-reference", "growth-words", "json-small", "non-latin"]) {
  const s = streams[name];
  for (let k = 0; k < 6; ++k) {
    const at = 1 + Math.floor(r() * (s.length - 2));
    const bit = 1 << Math.floor(r() * 15);
    const damaged = s.slice(0, at) + String.fromCharCode(((s.charCodeAt(at) - 32) ^ bit) + 32) + s.slice(at + 1);
    add(`flip-${name}-${at}-${bit}`, damaged);
  }
}

// Characters outside the 15-bit payload range: below 32 and at the top of the range.
add("low-chars", String.fromCharCode(0, 5, 31, 0, 0));
add("high-chars", String.fromCharCode(0x801f, 0xffff, 0x8000));

fs.writeFileSync(path.join(out, "manifest.tsv"),
  "# name\tkind\tlength\tsha256 (of the decoded text as UTF-16LE)\n" + rows.map((r) => r.join("\t")).join("\n") + "\n");
console.log(`${rows.length} vectors written to ${out}`);
