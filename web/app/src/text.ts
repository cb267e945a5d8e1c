/** Words and numbers for people. A number and its unit stay on one line. */

const joined = '\u00a0';

export function bytesText(bytes: number): string {
  const units = ['B', 'KB', 'MB', 'GB', 'TB'];
  let unit = 0;
  while (bytes >= 1000 && unit + 1 < units.length) {
    bytes /= 1000;
    unit += 1;
  }
  return `${bytes.toFixed(unit === 0 || bytes >= 100 ? 0 : 1)}${joined}${units[unit]}`;
}

export function timeLeftText(seconds: number): string {
  if (seconds < 60) return `${Math.max(1, Math.round(seconds))}${joined}s left`;
  if (seconds < 3600) return `${Math.round(seconds / 60)}${joined}min left`;
  return `${(seconds / 3600).toFixed(1)}${joined}h left`;
}

/** A length or a moment in a video. */
export function secondsText(seconds: number): string {
  if (seconds >= 100) {
    const whole = Math.round(seconds);
    return `${Math.floor(whole / 60)}:${String(whole % 60).padStart(2, '0')}${joined}min`;
  }
  return `${Number(seconds.toFixed(2))}${joined}s`;
}

/** Words as a whole sentence. A file's name at the start stays as it is. */
export function sentence(words: string, name?: string): string {
  const whole = name !== undefined && words.startsWith(name) ? words : words.charAt(0).toUpperCase() + words.slice(1);
  return /[.!?]$/.test(whole) ? whole : `${whole}.`;
}

export function countText(count: number, one: string, many: string): string {
  return count === 1 ? `1 ${one}` : `${count} ${many}`;
}

/** Day and time of a moment given in Unix seconds. */
export function momentText(seconds: number): string {
  return new Date(seconds * 1000).toLocaleString(undefined, { dateStyle: 'medium', timeStyle: 'short' });
}

/** A file name for a video at this address: the last part of its path, with a video's ending. Empty for no address. */
export function suggestedFilename(address: string): string {
  let last: string;
  try {
    last = new URL(address.trim()).pathname.split('/').at(-1) ?? '';
    last = decodeURIComponent(last);
  } catch {
    return '';
  }
  const name = last.replace(/[\u0000-\u001f\u007f/\\]/g, '_').replace(/^\.+/, '');
  if (name === '') return 'video.mp4';
  return /.\.(mp4|mov|m4v)$/i.test(name) ? name : `${name}.mp4`;
}

export function messageOf(error: unknown): string {
  return error instanceof Error ? error.message : String(error);
}
