"""The laboratory: virtual networks with the real programs in them, for Linux and for
Windows under Wine, and what speaks to them. The demonstration, the tests and the
benchmarks stand on it; run them from the project's root, as ./dev does."""
