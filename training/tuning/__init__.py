"""The wake word's operating point on a person's own recordings."""
