// The simulated panel: filled in by the platform work.
