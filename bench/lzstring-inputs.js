// Realistic texts for the LZString benchmark, deterministic per seed.
const path = require("path");
const { prng } = require(path.join(__dirname, "../tools/vectors/lzdata.js"));

// Pseudo-words from syllables: a vocabulary of thousands, used with a skew as real text is.
function vocabulary(r, count) {
  const syllables = ["ka", "lo", "mi", "ne", "ru", "ta", "shi", "von", "del", "ar", "is", "qu", "ex", "pro", "tor",
                     "ma", "li", "sen", "do", "ber", "gan", "ul", "ri", "os", "ve", "tan", "cor", "phi", "zu", "el"];
  const words = new Set();
  while (words.size < count) {
    let w = "";
    const n = 1 + Math.floor(r() * 4);
    for (let i = 0; i < n; ++i) w += syllables[Math.floor(r() * syllables.length)];
    words.add(w);
  }
  return [...words];
}

function pick(r, list) {
  // Zipf-like: early entries far more often.
  return list[Math.floor(Math.pow(r(), 4.5) * list.length)];
}

// A JSON reply of about `chars` characters: records of several kinds with varied keys and values.
function jsonReply(chars, seed) {
  const r = prng(seed);
  const words = vocabulary(r, 1500);
  const keys = vocabulary(r, 300).map((k, i) => (i % 3 ? k[0].toUpperCase() + k.slice(1) : k) + (i % 7 === 0 ? "Id" : ""));
  const kinds = [];
  for (let k = 0; k < 12; ++k) {
    const fields = [];
    const n = 6 + Math.floor(r() * 12);
    for (let i = 0; i < n; ++i) fields.push([keys[Math.floor(r() * keys.length)], Math.floor(r() * 8)]);
    kinds.push(fields);
  }
  const hex = (n) => { let s = ""; for (let i = 0; i < n; ++i) s += "0123456789abcdef"[Math.floor(r() * 16)]; return s; };
  const value = (type) => {
    switch (type) {
      case 0: return Math.floor(r() * 100000);
      case 1: return Math.round(r() * 1e6) / 100;
      case 2: return r() < 0.5;
      case 3: return pick(r, words) + " " + pick(r, words) + (r() < 0.5 ? " " + pick(r, words) : "");
      case 4: return `2026-${String(1 + Math.floor(r() * 12)).padStart(2, "0")}-${String(1 + Math.floor(r() * 28)).padStart(2, "0")}T${String(Math.floor(r() * 24)).padStart(2, "0")}:${String(Math.floor(r() * 60)).padStart(2, "0")}:00Z`;
      case 5: return r() < 0.12 ? `${hex(8)}-${hex(4)}-${hex(4)}-${hex(4)}-${hex(12)}` : `https://cdn.example.com/${pick(r, words)}/${Math.floor(r() * 90000)}.png`;
      case 6: return [pick(r, words), pick(r, words), pick(r, words)].slice(0, 1 + Math.floor(r() * 3));
      default: {
        const words8 = []; const n = 3 + Math.floor(r() * 8);
        for (let i = 0; i < n; ++i) words8.push(pick(r, words));
        return words8.join(" ") + ".";
      }
    }
  };
  const records = [];
  let size = 40;
  while (size < chars) {
    const fields = kinds[Math.floor(r() * kinds.length)];
    const record = {};
    for (const [key, type] of fields) if (r() < 0.9) record[key] = value(type);
    const text = JSON.stringify(record);
    records.push(text);
    size += text.length + 1;
  }
  const text = `{"apiStatus":2,"status":2,"result":{"items":[${records.join(",")}]}}`;
  return text;
}

// CJK prose with punctuation, some Latin and digits, and about 1% non-BMP characters.
function cjkText(chars, seed) {
  const r = prng(seed);
  const common = [];
  for (let i = 0; i < 3500; ++i) common.push(String.fromCharCode(0x4e00 + Math.floor(r() * 0x5000)));
  const punctuation = ["\u3002", "\uff0c", "\u3001", "\uff1a", "\u300c", "\u300d", "\uff01", "\uff1f"];
  let out = "";
  while (out.length < chars) {
    const t = r();
    if (t < 0.01) out += String.fromCodePoint(0x20000 + Math.floor(r() * 0x2a6d));   // CJK extension B
    else if (t < 0.013) out += String.fromCodePoint(0x1f300 + Math.floor(r() * 0x250)); // pictographs
    else if (t < 0.09) out += punctuation[Math.floor(r() * punctuation.length)];
    else if (t < 0.1) out += " " + Math.floor(r() * 10000) + " ";
    else out += pick(r, common);
  }
  return out;
}

// Random printable ASCII.
function randomPrintable(chars, seed) {
  const r = prng(seed);
  const codes = new Array(chars);
  for (let i = 0; i < chars; ++i) codes[i] = 32 + Math.floor(r() * 95);
  let s = "";
  for (let i = 0; i < chars; i += 8192) s += String.fromCharCode(...codes.slice(i, i + 8192));
  return s;
}

const inputs = () => [
  ["json-1KB", jsonReply(1e3, 11)],
  ["json-64KB", jsonReply(64e3, 12)],
  ["json-1MB", jsonReply(1e6, 13)],
  ["json-10MB", jsonReply(10e6, 14)],
  ["cjk-64KB", cjkText(32e3, 15)],
  ["cjk-1MB", cjkText(5e5, 16)],
  ["random-64KB", randomPrintable(64e3, 17)],
  ["random-1MB", randomPrintable(1e6, 18)],
];

module.exports = { jsonReply, cjkText, randomPrintable, inputs };
