// Bundles the page from app/ into a folder that a host serves:
//   node build.mjs [FOLDER]      build/web under the repository's root when none is given

import { copyFileSync } from 'node:fs';
import { join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { build } from 'esbuild';

const app = fileURLToPath(new URL('app/', import.meta.url));
const folder = process.argv[2] ?? fileURLToPath(new URL('../build/web/', import.meta.url));

await build({
  entryPoints: { app: join(app, 'src/main.ts') },
  tsconfig: join(app, 'tsconfig.json'),
  outdir: folder,
  bundle: true,
  format: 'esm',
  target: 'es2022',
  minify: true,
  legalComments: 'none',
  logLevel: 'warning',
});
await build({ entryPoints: [join(app, 'app.css')], outdir: folder, bundle: true, minify: true, logLevel: 'warning' });
copyFileSync(join(app, 'icon.svg'), join(folder, 'icon.svg'));
copyFileSync(join(app, 'index.html'), join(folder, 'index.html')); // last: it tells that the rest is there
