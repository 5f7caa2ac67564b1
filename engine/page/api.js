// Questions to the engine.

const TIMEOUT_MS = 5000;

/// The answer to a path and a query; what is null or empty in the query is left out.  Throws what
/// carries the status when the engine refuses.
export async function ask(path, query = {}) {
  const given = Object.entries(query).filter(([, value]) => value !== null && value !== "");
  const target = given.length > 0 ? path + "?" + new URLSearchParams(given) : path;
  const signal = AbortSignal.timeout(TIMEOUT_MS);
  const answer = await fetch(target, { cache: "no-store", signal });
  if (!answer.ok) throw Object.assign(new Error(answer.statusText), { status: answer.status });
  return answer.json();
}
