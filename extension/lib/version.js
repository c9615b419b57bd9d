// Dotted numeric versions ("2.11.1"). A missing or non-numeric part counts as 0, so a garbled
// minimum never makes the extension claim to be outdated.
function parts(version) {
  return String(version ?? '')
    .split('.')
    .map((piece) => (/^\d+$/.test(piece.trim()) ? Number(piece.trim()) : 0));
}

export function compareVersions(a, b) {
  const left = parts(a);
  const right = parts(b);
  for (let i = 0; i < Math.max(left.length, right.length); i += 1) {
    const difference = (left[i] ?? 0) - (right[i] ?? 0);
    if (difference !== 0) {
      return Math.sign(difference);
    }
  }
  return 0;
}

export function isBelowMinimum(version, minimum) {
  return typeof minimum === 'string' && compareVersions(version, minimum) < 0;
}
