"""What each network is trained on, for and judged by.

A task is an object with
    model()                      -> the untrained network
    sample(rng, split)           -> one batch, dict of float32 arrays; called in worker processes
    loss(model, batch, rng)      -> (scalar loss, {name: float} for the log)
    validate(model, batch)       -> {name: float}
"""
import importlib

NETWORKS = ("ns", "naec", "doa", "kws")


def create(network, config, data):
    return importlib.import_module(f".{network}", __name__).Task(config, data)
