"""Mandarin by the voices of a neural synthesiser, as a folder of a training corpus."""
