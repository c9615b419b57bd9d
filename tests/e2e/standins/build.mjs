// Bundles each stand-in page's script: node build.mjs <output folder>.
import { build } from 'esbuild';
import { readdirSync } from 'node:fs';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';

const here = dirname(fileURLToPath(import.meta.url));
const pages = readdirSync(join(here, 'pages')).filter((name) => name.endsWith('.html') && name !== 'passport.html');
await build({
  entryPoints: pages.map((name) => join(here, 'src', name.replace('.html', '.js'))),
  outdir: process.argv[2],
  bundle: true,
  format: 'iife',
  minify: true,
  logLevel: 'warning',
  define: { 'process.env.NODE_ENV': '"production"' },
});
