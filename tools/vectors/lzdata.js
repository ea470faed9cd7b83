// Deterministic texts shared by the vector generator and the benchmark.

// A small seeded generator (mulberry32), so that every run makes the same data.
function prng(seed) {
  return () => {
    seed |= 0; seed = (seed + 0x6d2b79f5) | 0;
    let t = Math.imul(seed ^ (seed >>> 15), 1 | seed);
    t = (t + Math.imul(t ^ (t >>> 7), 61 | t)) ^ t;
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
  };
}

// A JSON array of product records of about `bytes` characters.
function jsonRecords(bytes, seed) {
  const r = prng(seed);
  const words = ["Studio", "Director", "Photo", "Audio", "Power", "Color", "Media", "Suite", "Cloud", "Pack"];
  const parts = [];
  let size = 2;
  for (let id = 1; size < bytes; ++id) {
    const text = JSON.stringify({
      ProductID: "P" + (100000 + id),
      Name: words[Math.floor(r() * 10)] + " " + words[Math.floor(r() * 10)] + " " + Math.floor(r() * 30),
      Version: `${Math.floor(r() * 20)}.${Math.floor(r() * 10)}.${Math.floor(r() * 9000) + 1000}`,
      Lang: Math.floor(r() * 16),
      Price: Math.round(r() * 20000) / 100,
      Owned: r() < 0.5,
      Tags: [words[Math.floor(r() * 10)], words[Math.floor(r() * 10)]],
    });
    parts.push(text);
    size += text.length + 1;
  }
  return "[" + parts.join(",") + "]";
}

// `length` characters anywhere in the BMP outside the surrogate range.
function nearRandom(length, seed) {
  const r = prng(seed);
  const codes = new Array(length);
  for (let i = 0; i < length; ++i) codes[i] = Math.floor(r() * 0xd7ff) + 1;
  let s = "";
  for (let i = 0; i < length; i += 8192) s += String.fromCharCode(...codes.slice(i, i + 8192));
  return s;
}

module.exports = { prng, jsonRecords, nearRandom };
