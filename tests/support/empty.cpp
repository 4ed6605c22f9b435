// Keeps the support library non-empty before any support source exists.
