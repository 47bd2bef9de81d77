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

// The bake of a terrain's first colour material: 8-bit sRGB RGB, row 0 at the grid's last row.
export async function texture(terrain) {
  const response = await fetch(`/api/texture?terrain=${terrain}`, { headers: { 'X-Vellgrund-Token': token } });
  if (response.status === 404) return null;  // a newer build took it off
  if (!response.ok) throw new Error(`texture: ${response.status}`);
  const number = (name) => Number(response.headers.get(name));
  return { width: number('X-Width'), height: number('X-Height'), version: number('X-Version'), data: new Uint8Array(await response.arrayBuffer()) };
}

export function events(handlers) {
  const source = new EventSource(`/api/events?token=${encodeURIComponent(token)}`);
  for (const [name, handler] of Object.entries(handlers))
    source.addEventListener(name, (event) => handler(JSON.parse(event.data)));
  return source;
}
