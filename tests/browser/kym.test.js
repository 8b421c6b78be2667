// kym serve used as people use it: a real Chromium, clicks and typing, on a
// demo site made afresh for each test by demo/make-site.sh, with the
// settings read back through the kym command.
const { test: base, expect } = require('@playwright/test');
const { spawn, execFileSync } = require('child_process');
const fs = require('fs');
const os = require('os');
const path = require('path');

const root = path.resolve(__dirname, '../..');
const kymProgram = process.env.KYM || path.join(root, 'build/tools/kym');
const screenshots = process.env.KYM_SCREENSHOT_DIR || path.join(root, 'build/browser-screenshots');

// A demo site, and kym serve for it; `output` is what the server printed,
// the reports of the programs it started included.
const test = base.extend({
  site: async ({}, use) => {
    const directory = fs.mkdtempSync(path.join(os.tmpdir(), 'kym-browser-'));
    const site = path.join(directory, 'site');
    execFileSync('bash', [path.join(root, 'demo/make-site.sh'), site], { env: { ...process.env, KYM: kymProgram } });
    const env = {
      PATH: '/usr/local/bin:/usr/bin:/bin', HOME: path.join(site, 'home'), LANG: 'C.UTF-8',
      KYM_BASE_DIR: path.join(site, 'kym'), KYM_UGSITE_DIR: path.join(site, 'ugsite'),
      XDG_CONFIG_HOME: path.join(site, 'home/.config'),
    };
    const server = spawn(kymProgram, ['serve'], { env, stdio: ['ignore', 'pipe', 'inherit'] });
    let output = '';
    const exited = new Promise((resolve) => server.on('exit', resolve));
    const url = await new Promise((resolve, reject) => {
      server.stdout.on('data', (chunk) => {
        output += chunk;
        if (output.includes('\n')) resolve(output.split('\n')[0]);
      });
      server.on('exit', (code) => reject(new Error('kym serve ended with ' + code)));
    });
    const kym = (...args) => execFileSync(kymProgram, args, { env }).toString();
    await use({ url, kym, output: () => output, path: site });
    server.kill('SIGINT');
    expect(await exited).toBe(0);
    fs.rmSync(directory, { recursive: true, force: true });
  },
});

// Moves the focus with the Tab key alone until it reaches that control.
async function tabTo(page, control) {
  for (let step = 0; step < 60; ++step) {
    await page.keyboard.press('Tab');
    if (await control.evaluate((element) => element === document.activeElement)) return;
  }
  throw new Error('The Tab key never reached ' + control);
}

async function openLayer(page, label) {
  await page.getByRole('tab', { name: 'Configure' }).click();
  await page.getByLabel('Layer').selectOption({ label });
  await expect(page.getByRole('heading', { name: label, level: 2 })).toBeVisible();
}

test('an engineer starts an application with the keyboard alone and sees its report', async ({ page, site }) => {
  await page.goto(site.url);
  await expect(page.getByRole('heading', { name: 'CAD' })).toBeVisible();
  const department = page.getByRole('tabpanel', { name: 'Launch' }).getByLabel('Department');
  await expect(department.getByRole('option')).toHaveCount(3);
  await tabTo(page, department);
  await page.keyboard.press('End');
  await expect(department).toHaveValue('tooling');
  await expect(page.getByText('Tool development', { exact: true })).toBeVisible();
  await page.keyboard.press('Home');
  await expect(page.getByText('Design office', { exact: true })).toBeVisible();
  await tabTo(page, page.getByLabel('Work directory'));
  await page.keyboard.press('ArrowDown');
  await expect(page.getByLabel('Work directory')).toHaveValue('projects');
  await tabTo(page, page.getByRole('button', { name: 'Start NX Drafting' }));
  await page.keyboard.press('Enter');

  await expect(page.getByRole('status')).toHaveText('Started drafting from department design in work directory projects.');
  await expect.poll(site.output).toContain('ugraf: started in ' + path.join(site.path, 'projects/design'));
  expect(site.output()).toContain('ugraf: argument 1: -drafting');

  await page.getByRole('button', { name: 'Environment of NX Drafting' }).click();
  const language = page.getByRole('row', { name: /^UGII_LANG / });
  await expect(language).toContainText('german');
  await expect(language).toContainText('base → department');
  await page.screenshot({ path: path.join(screenshots, 'launch.png'), fullPage: true });
});

test('a start that fails shows the library\'s message', async ({ page, site }) => {
  site.kym('app', 'set', 'dept:design', 'drafting', 'Executable', '/nowhere/ugraf');
  await page.goto(site.url);
  await page.getByRole('button', { name: 'Start NX Drafting' }).click();
  await expect(page.getByRole('status')).toContainText('/nowhere/ugraf');
});

test('an administrator edits a variable, saves, and kym env shows it', async ({ page, site }) => {
  await page.goto(site.url);
  await openLayer(page, 'Department design');
  await page.getByLabel('Value of UGII_LANG in the common list of Department design').fill('french');
  await page.getByRole('button', { name: 'Save' }).click();
  await expect(page.getByRole('status').filter({ hasText: /^Saved\.$/ })).toBeVisible();
  expect(site.kym('env', 'design', 'drafting')).toContain('\nUGII_LANG=french\n');
  await page.screenshot({ path: path.join(screenshots, 'configure.png'), fullPage: true });
});

test('a bad variable name is refused at its cell and nothing is saved', async ({ page, site }) => {
  const before = site.kym('export', 'dept:design');
  await page.goto(site.url);
  await openLayer(page, 'Department design');
  await page.getByRole('button', { name: 'Add to Department design: common variables' }).click();
  await page.keyboard.type('1BAD');
  await page.getByLabel('Value of new variable 4 in the common list of Department design').fill('x');
  await page.getByRole('button', { name: 'Save' }).click();

  const cell = page.getByLabel('Name of 1BAD in the common list of Department design');
  await expect(cell).toHaveAttribute('aria-invalid', 'true');
  await expect(cell).toHaveAccessibleDescription(/Invalid variable name '1BAD' in the common list of department design/);
  expect(site.kym('export', 'dept:design')).toBe(before);
});

test('of two administrators editing one department the second is told and loses nothing', async ({ browser, site }) => {
  const first = await (await browser.newContext()).newPage();
  const second = await (await browser.newContext()).newPage();
  for (const page of [first, second]) {
    await page.goto(site.url);
    await openLayer(page, 'Department design');
  }
  await first.getByLabel('Value of UGII_LANG in the common list of Department design').fill('french');
  await first.getByRole('button', { name: 'Save' }).click();
  await expect(first.getByRole('status').filter({ hasText: /^Saved\.$/ })).toBeVisible();

  const journals = 'Value of UGII_JOURNAL_DIR in the common list of Department design';
  await second.getByLabel(journals).fill('/shared/journals');
  await second.getByRole('button', { name: 'Save' }).click();
  await expect(second.getByRole('alert').filter({ hasText: 'Another administrator saved' })).toBeVisible();
  await expect(second.getByLabel(journals)).toHaveValue('/shared/journals');
  await second.getByRole('button', { name: 'Reload, keeping my edits' }).click();
  await expect(second.getByLabel('Value of UGII_LANG in the common list of Department design')).toHaveValue('french');
  await expect(second.getByLabel(journals)).toHaveValue('/shared/journals');
  await second.getByRole('button', { name: 'Save' }).click();
  await expect(second.getByRole('status').filter({ hasText: /^Saved\.$/ })).toBeVisible();

  const variables = site.kym('var', 'list', 'dept:design');
  expect(variables).toMatch(/UGII_LANG +french/);
  expect(variables).toMatch(/UGII_JOURNAL_DIR +\/shared\/journals/);
});

test('an administrator creates and deletes a department, and creates, renames and deletes a plugin', async ({ page, site }) => {
  await page.goto(site.url);
  await page.getByRole('tab', { name: 'Configure' }).click();
  const form = page.getByRole('group', { name: 'New department' });
  await form.getByLabel('Name').fill('assembly');
  await form.getByLabel('Description').fill('Assembly office');
  await form.getByLabel('Common department').selectOption('shared');
  await form.getByRole('button', { name: 'Create department' }).click();
  await expect(page.getByRole('status').filter({ hasText: 'Done: New department.' })).toBeVisible();
  expect(site.kym('departments')).toMatch(/assembly +Production +yes +Assembly office/);
  await expect(page.getByLabel('Layer').getByRole('option', { name: 'Department assembly' })).toHaveCount(1);

  const remove = page.getByRole('group', { name: 'Delete a department' });
  await remove.getByLabel('Department', { exact: true }).selectOption('assembly');
  await remove.getByLabel('Delete it with all its releases').check();
  await remove.getByRole('button', { name: 'Delete department' }).click();
  await expect(page.getByRole('status').filter({ hasText: 'Done: Delete a department.' })).toBeVisible();
  expect(site.kym('departments')).not.toContain('assembly');
  await expect(page.getByLabel('Layer').getByRole('option', { name: 'Department assembly' })).toHaveCount(0);

  const plugin = page.getByRole('group', { name: 'New plugin' });
  await plugin.getByLabel('Name').fill('probe');
  await plugin.getByLabel('Type').selectOption('Production');
  await plugin.getByRole('button', { name: 'Create plugin' }).click();
  await expect(page.getByLabel('Layer').getByRole('option', { name: 'Plugin probe' })).toHaveCount(1);
  expect(site.kym('plugin', 'list')).toMatch(/probe +Production +internal/);

  // A department that switched it off keeps it switched off under its new name.
  site.kym('plugin', 'disable', 'tooling', 'probe');
  const renamePlugin = page.getByRole('group', { name: 'Rename a plugin' });
  await renamePlugin.getByLabel('Plugin', { exact: true }).selectOption('probe');
  await renamePlugin.getByLabel('New name').fill('gauge');
  await renamePlugin.getByRole('button', { name: 'Rename plugin' }).click();
  await expect(page.getByLabel('Layer').getByRole('option', { name: 'Plugin gauge' })).toHaveCount(1);
  await expect(page.getByLabel('Layer').getByRole('option', { name: 'Plugin probe' })).toHaveCount(0);
  expect(JSON.parse(site.kym('export', 'dept:tooling')).disabledPlugins).toEqual(['gauge']);

  const removePlugin = page.getByRole('group', { name: 'Delete a plugin' });
  await removePlugin.getByLabel('Plugin', { exact: true }).selectOption('gauge');
  await removePlugin.getByLabel('Delete it with its directory').check();
  await removePlugin.getByRole('button', { name: 'Delete plugin' }).click();
  await expect(page.getByLabel('Layer').getByRole('option', { name: 'Plugin gauge' })).toHaveCount(0);
  expect(site.kym('plugin', 'list')).not.toContain('gauge');
});
