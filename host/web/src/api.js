// Requests to fxmd. On the loopback address fxmd wants a token; the tab keeps it, and no cookie does.

const KEY = 'fxm-token'

export const token = {
  get: () => sessionStorage.getItem(KEY) ?? '',
  set: (text) => sessionStorage.setItem(KEY, text),
}

// A room shows all its sites, or one of them as that would show itself; the address says which.
export const isRoom = globalThis.document?.documentElement.dataset.room !== undefined
export const site = isRoom ? (new URLSearchParams(location.hash.slice(1)).get('site') ?? '') : ''
const withSite = (path) => (site ? `${path}${path.includes('?') ? '&' : '?'}site=${encodeURIComponent(site)}` : path)

// What fxmd refused, in its own words.
export class Refused extends Error {
  constructor(status, document) {
    super(document?.message ?? `fxmd answered with status ${status}`)
    this.status = status
    this.code = document?.code ?? ''
    this.hint = document?.hint ?? ''
  }
}

export async function send(method, path, { body, accept, signal } = {}) {
  const headers = {}
  if (token.get()) headers.Authorization = `Bearer ${token.get()}`
  if (accept) headers.Accept = accept
  if (body !== undefined) headers['Content-Type'] = 'application/json'
  const answer = await fetch(withSite(path), {
    method,
    headers,
    signal,
    body: body === undefined ? undefined : JSON.stringify(body),
    cache: 'no-store',
    credentials: 'omit',
  })
  if (!answer.ok) throw new Refused(answer.status, await answer.json().catch(() => null))
  return answer
}

export const get = async (path, options) => (await send('GET', path, options)).json()
export const put = async (path, body) => (await send('PUT', path, { body })).json()
export const post = async (path, body) => (await send('POST', path, { body })).json()
export const remove = async (path) => (await send('DELETE', path)).json()

const NDJSON = 'application/x-ndjson'

// Calls `take` with each batch of parsed lines as it arrives. `began` gets the answer before the first line.
export async function readLines(path, { signal, began, take }) {
  const answer = await send('GET', path, { accept: NDJSON, signal })
  began?.(answer)
  const reader = answer.body.getReader()
  const decoder = new TextDecoder()
  let rest = ''
  for (;;) {
    const { done, value } = await reader.read()
    if (done) return
    const text = rest + decoder.decode(value, { stream: true })
    const end = text.lastIndexOf('\n')
    rest = text.slice(end + 1)
    // Parsed as one array, many lines take a fraction of the time. An empty line shows that the connection lives.
    take(JSON.parse(`[${text.slice(0, end + 1).trim().replace(/\n+/g, ',')}]`))
  }
}
