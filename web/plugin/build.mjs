// Makes what the package holds: the modules for import and for require, the script for a page without a bundler,
// docs.json, host/native.js and LICENSE. `npm pack` and `npm ci` run it; it fetches the tools when there are none.

import { spawnSync } from 'node:child_process';
import { copyFileSync, existsSync, mkdirSync, rmSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { fileURLToPath } from 'node:url';

const web = fileURLToPath(new URL('..', import.meta.url));
const plugin = join(web, 'plugin');
const modules = join(web, 'node_modules');

/**
 * Runs a command in a folder; its failure is the end, in its own words. What the npm that has started this was told to
 * leave out or not to do is not passed on.
 */
function run(folder, command, ...args) {
  const { npm_config_dry_run, npm_config_workspace, npm_config_omit, ...env } = process.env;
  const { error, status } = spawnSync(command, args, { cwd: folder, env, stdio: ['ignore', 2, 2] });
  if (error) throw error;
  if (status !== 0) process.exit(1);
}

const tools = ['@capacitor/core', '@capacitor/docgen', 'esbuild', 'typescript'];
if (!tools.every((tool) => existsSync(join(modules, tool)))) {
  run(web, 'npm', 'ci', '--ignore-scripts', '--loglevel=error');
}

const dist = join(plugin, 'dist');
rmSync(dist, { recursive: true, force: true });
const tsc = join(modules, 'typescript/bin/tsc');
run(plugin, process.execPath, tsc, '-p', '.', '--outDir', 'dist/esm');
run(plugin, process.execPath, tsc, '-p', '.', '--outDir', 'dist/cjs', '--module', 'commonjs');
writeFileSync(join(dist, 'cjs/package.json'), '{ "type": "commonjs" }\n'); // else its files would count as modules

// The core's own script, which a page loads first, leaves it in capacitorExports.
const coreOfThePage = {
  name: 'core-of-the-page',
  setup(build) {
    build.onResolve({ filter: /^@capacitor\/core$/ }, ({ path }) => ({ path, namespace: 'page' }));
    build.onLoad({ filter: /./, namespace: 'page' }, () => ({ contents: 'module.exports = capacitorExports;' }));
  },
};
const { build } = await import('esbuild');
await build({
  entryPoints: [join(dist, 'esm/index.js')],
  outfile: join(dist, 'plugin.js'),
  bundle: true,
  format: 'iife',
  globalName: 'capacitorTarnBridge',
  target: 'es2022',
  plugins: [coreOfThePage],
  logLevel: 'warning',
});

const docgen = join(modules, '@capacitor/docgen/bin/docgen');
run(plugin, process.execPath, docgen, '--silent', '--api', 'TarnBridgePlugin', '--output-json', 'dist/docs.json');
run(plugin, process.execPath, 'api-docs.mjs', '--check');

mkdirSync(join(plugin, 'host'), { recursive: true });
copyFileSync(join(web, 'host/native.js'), join(plugin, 'host/native.js'));
copyFileSync(join(web, '../LICENSE'), join(plugin, 'LICENSE'));
