// The real fxmd and simulated cards, and a browser that looks at them. Runs inside of host/tests/stage.py.
import { spawn } from 'node:child_process'
import { dirname, join } from 'node:path'
import { createInterface } from 'node:readline'
import { fileURLToPath } from 'node:url'
import { chromium } from 'playwright-core'

const here = dirname(fileURLToPath(import.meta.url))

// Commands to host/tests/stage.py: stage.cards({ text: 'remove all' }).
export async function openStage(how = {}) {
  const program = spawn('/usr/bin/python3', ['-B', join(here, '../../tests/stage.py'), '--serve'], { stdio: ['pipe', 'pipe', 'inherit'] })
  const lines = createInterface({ input: program.stdout })[Symbol.asyncIterator]()
  let last = Promise.resolve()
  const ask = (words) => {
    last = last.catch(() => {}).then(async () => {
      program.stdin.write(`${JSON.stringify(words)}\n`)
      const { value, done } = await lines.next()
      const answer = done ? { error: 'stage.py has ended' } : JSON.parse(value)
      if (answer.error) throw new Error(`${words.do}: ${answer.error}`)
      return answer.value
    })
    return last
  }
  const stage = new Proxy({}, { get: (_, name) => (name === 'then' ? undefined : (words = {}) => ask({ do: name, ...words })) })
  const started = await stage.start(how)
  return {
    stage,
    ...started,
    end: async () => {
      try {
        await stage.close()
      } finally {
        program.stdin.end()
      }
    },
  }
}

// The shell is the browser without its windows, and takes half of the time.
export const openBrowser = () =>
  chromium.launch({
    executablePath: process.env.FXM_CHROMIUM ?? '/usr/bin/chromium-headless-shell',
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-background-networking', '--disable-dev-shm-usage', '--enable-precise-memory-info'],
  })

// A tab of this role. `faults` collects what must not be: messages of the console, errors, requests to somewhere else.
export async function openPage(browser, { url, tokens }, { role = 'operate', hash = '', ...options } = {}) {
  const context = await browser.newContext({ viewport: { width: 1400, height: 900 }, ...options })
  const page = await context.newPage()
  page.faults = []
  page.on('console', (message) => {
    // A connection that fails is what a restart of fxmd looks like.
    if (/ERR_CONNECTION_REFUSED|ERR_INCOMPLETE_CHUNKED|ERR_EMPTY_RESPONSE|ERR_CONNECTION_RESET/.test(message.text())) return
    if (['error', 'warning'].includes(message.type())) page.faults.push(message.text())
  })
  page.on('pageerror', (error) => page.faults.push(String(error)))
  page.on('request', (request) => {
    if (!/^(http:\/\/127\.0\.0\.1:8610\/|blob:|data:)/.test(request.url())) page.faults.push(`request to ${request.url()}`)
  })
  if (role) await page.addInitScript((token) => sessionStorage.setItem('fxm-token', token), tokens[role])
  await page.goto(url + hash)
  return page
}

// The first true value of the condition, or an error that says what was waited for.
export async function until(condition, what, seconds = 30) {
  const end = Date.now() + 1000 * seconds
  for (let pause = 20; ; pause = Math.min(1.3 * pause, 150)) {
    try {
      const value = await condition()
      if (value) return value
    } catch (failure) { // the page may be on its way to another address
      if (!/Execution context was destroyed/.test(failure.message)) throw failure
    }
    if (Date.now() > end) throw new Error(`not within ${seconds} s: ${what}`)
    await new Promise((resume) => setTimeout(resume, pause))
  }
}
