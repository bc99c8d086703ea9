// Builds page.html: the template with one script and one style in it, and with a policy that names both by their hashes,
// so that a browser runs nothing else. With --check it compares the result with the committed file instead.
import { createHash } from 'node:crypto'
import { readFileSync, writeFileSync } from 'node:fs'
import { dirname, join } from 'node:path'
import { fileURLToPath } from 'node:url'
import { build } from 'esbuild'

const here = dirname(fileURLToPath(import.meta.url))
const output = join(here, 'page.html')

async function bundle(file) {
  const result = await build({
    entryPoints: [join(here, 'src', file)],
    bundle: true,
    minify: true,
    write: false,
    charset: 'ascii',
    format: 'iife',
    target: ['chrome109', 'firefox115', 'safari16'],
    jsx: 'automatic',
    jsxImportSource: 'preact',
    legalComments: 'none',
    logLevel: 'warning',
  })
  return result.outputFiles[0].text.trim()
}

const hash = (text) => `'sha256-${createHash('sha256').update(text).digest('base64')}'`

const script = await bundle('main.jsx')
const style = await bundle('page.css')
const policy = [
  "default-src 'self'",
  `script-src ${hash(script)}`,
  `style-src ${hash(style)}`,
  "base-uri 'none'",
  "form-action 'none'",
].join('; ')
// A replacement as a function: the text may hold `$&`.
const page = readFileSync(join(here, 'src', 'page.html'), 'utf8')
  .replace('{policy}', () => policy)
  .replace('{style}', () => style)
  .replace('{script}', () => script)

// fxmd embeds the file as C++ text.
if (/[^\x20-\x7e\n]/.test(page) || page.includes(')~~"') || /<\/script/i.test(script))
  throw new Error('page.html holds text that cannot be embedded')

if (process.argv.includes('--check')) {
  if (readFileSync(output, 'utf8') !== page) {
    console.error('host/web/page.html differs from its sources: run "npm run build" in host/web and commit the file')
    process.exit(1)
  }
} else {
  writeFileSync(output, page)
  console.log(`page.html: ${page.length} bytes`)
}
