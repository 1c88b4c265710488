"""What the wake-up network learns from: Mandarin syllables by many voices, in rooms, noise and playback, as features."""
