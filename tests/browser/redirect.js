// Follows a member redirect link in headless Chromium and reports who the landing page says is signed in.
// Usage: node redirect.js LINK
// Prints "<the page's member line> at <the page's path>".
const { chromium } = require("playwright-core");

(async () => {
  const [link] = process.argv.slice(2);
  const browser = await chromium.launch({
    executablePath: process.env.QM_CHROMIUM || "/usr/bin/chromium",
    args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
           "--disable-component-update", "--disable-sync"],
  });
  try {
    // The local server's CA is the test's own; the library verifies it, the browser need not.
    const page = await browser.newPage({ ignoreHTTPSErrors: true });
    const response = await page.goto(link);
    if (!response || !response.ok()) throw new Error("landing page answered " + (response && response.status()));
    const member = await page.getByRole("status").innerText();
    console.log(`${member} at ${new URL(page.url()).pathname}`);
  } finally {
    await browser.close();
  }
})().catch((error) => {
  // Errors name the page, never the link: it carries the access token.
  console.error(String(error).replace(/Token=[^&\s]*/g, "Token=<redacted>"));
  process.exit(1);
});
