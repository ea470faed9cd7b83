// Opens the sign-in page in headless Chromium, fills the form in and submits it.
// Usage: node signin.js URL EMAIL PASSWORDS SCREENSHOT
// PASSWORDS are tried in turn, separated by "|": after a wrong one the page keeps the
// e-mail, so only the password is filled in again.
// Prints the heading of the page that the last submission leads to.
const { chromium } = require("playwright-core");

(async () => {
  const [url, email, passwords, screenshot] = process.argv.slice(2);
  const browser = await chromium.launch({
    executablePath: process.env.QM_CHROMIUM || "/usr/bin/chromium",
    args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
           "--disable-component-update", "--disable-sync"],
  });
  try {
    // The local server's CA is the test's own; the library verifies it, the browser need not.
    const page = await browser.newPage({ ignoreHTTPSErrors: true });
    await page.goto(url);
    await page.getByLabel("E-mail").fill(email);
    const tries = passwords.split("|");
    for (let i = 0; i < tries.length; ++i) {
      if (i > 0 && (await page.getByLabel("Password").count()) === 0) break;
      await page.getByLabel("Password").fill(tries[i]);
      if (screenshot && i === 0) await page.screenshot({ path: screenshot, fullPage: true });
      await Promise.all([page.waitForNavigation(), page.getByRole("button", { name: "Sign in" }).click()]);
      if (screenshot && i === 0 && tries.length > 1)
        await page.screenshot({ path: screenshot.replace(/\.png$/, "-retry.png"), fullPage: true });
    }
    if (screenshot) await page.screenshot({ path: screenshot.replace(/\.png$/, "-after.png"), fullPage: true });
    console.log(await page.locator("h1").innerText());
  } finally {
    await browser.close();
  }
})().catch((error) => {
  console.error(String(error));
  process.exit(1);
});
