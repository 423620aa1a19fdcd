// Keeps the support archive non-empty while it has no other sources.
