"""What engines do about workers that die."""

ATTEMPTS = 2


class Died(RuntimeError):
    """A task whose workers died, all of them: the task is to blame, not the machine."""
