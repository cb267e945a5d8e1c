import type { RejectionCode } from './definitions.js';

/** By the texts that the engine rejects with. */
const codes = new Map<unknown, RejectionCode>([
  ['Must provide the data path', 'MISSING_URL'],
  ['Must provide the album', 'MISSING_ALBUM'],
  ['Must provide filename', 'MISSING_FILENAME'],
  ['Access to photos not allowed by user', 'PHOTOS_NOT_ALLOWED'],
  ['Invalid download URL.', 'INVALID_URL'],
  ['No such download', 'MISSING_ID'],
  ['limit is required', 'MISSING_LIMIT'],
  ['not implemented', 'UNIMPLEMENTED'],
]);

/** Why the engine refused, from what a command was rejected with; undefined for what is none of the engine's texts. */
export function rejectionCode(error: unknown): RejectionCode | undefined {
  const { code, message } = (error ?? {}) as { code?: unknown; message?: unknown };
  return code === 'UNIMPLEMENTED' ? code : codes.get(message);
}

/** The same plug-in, whose commands are rejected with errors that have a `code` where the engine refused. */
export function withCodes<Plugin extends object>(plugin: Plugin): Plugin {
  return new Proxy(plugin, {
    get(target, name) {
      if (name === 'then') return undefined; // no promise, so that it can be awaited and be the result of an async function
      const method: unknown = Reflect.get(target, name);
      if (typeof method !== 'function' || name === 'addListener') return method;
      return (...given: unknown[]) => {
        const answer: unknown = method(...given);
        return answer instanceof Promise ? answer.catch(throwWithCode) : answer;
      };
    },
  });
}

function throwWithCode(error: unknown): never {
  const code = rejectionCode(error);
  if (code) Object.assign(error as object, { code });
  throw error;
}
