"""What each network is trained on, for and judged by.

A task is an object with
    model()                      -> the untrained network
    sample(rng, split, progress) -> one batch, dict of float32 arrays; called in worker processes. progress: share of the
                                    training that is over, which matters to recipes that begin with easier batches
    loss(model, batch, rng)      -> (scalar loss, {name: float} for the log)
    validate(model, batch)       -> {name: float}
and, where the recipe has a stage for it (kws),
    calibrate(model, batches)             sets the ranges of the codes; the model rounds from then on
    set_operating_point(model, **values)  before the export
"""

import importlib

NETWORKS = ("ns", "naec", "doa", "kws")


def create(network, config, data):
    return importlib.import_module(f".{network}", __name__).Task(config, data)
