// The editor's server: every request carries the token from the address the editor printed.
const token = new URLSearchParams(location.search).get('token') ?? '';

async function answer(response) {
  const body = await response.json().catch(() => ({ error: `${response.status} ${response.statusText}` }));
  if (!response.ok) throw new Error(body.error ?? response.statusText);
  return body;
}

// An address of the server that a new tab can open.
export function withToken(path) {
  return `${path}${path.includes('?') ? '&' : '?'}token=${encodeURIComponent(token)}`;
}

export async function get(path) {
  return answer(await fetch(path, { headers: { 'X-Vellgrund-Token': token } }));
}

export async function edit(request) {
  return answer(await fetch('/api/edit', {
    method: 'POST',
    headers: { 'Content-Type': 'application/json', 'X-Vellgrund-Token': token },
    body: JSON.stringify(request),
  }));
}

// One terrain's heights as float32, row after row.
export async function heights(terrain) {
  const response = await fetch(`/api/heights?terrain=${terrain}`, { headers: { 'X-Vellgrund-Token': token } });
  if (!response.ok) throw new Error(`heights: ${response.status}`);
  return new Float32Array(await response.arrayBuffer());
}

export function events(handlers) {
  const source = new EventSource(`/api/events?token=${encodeURIComponent(token)}`);
  for (const [name, handler] of Object.entries(handlers))
    source.addEventListener(name, (event) => handler(JSON.parse(event.data)));
  return source;
}
