"""The Ray engine on a cluster of two nodes on this machine: the rows of one process, and nothing lost with a worker."""

import os
import pathlib
import signal

import pytest
from fleet_test import folder, of_one_process, rows, run  # noqa: F401 (fixtures)
from quibo.fleet import on_ray, retry

# Read when Ray is imported: nothing but loopback, nothing reported.
os.environ.update(RAY_ENABLE_WINDOWS_OR_OSX_CLUSTER="0", RAY_USAGE_STATS_ENABLED="0")
# Workers get the work of these tests by this file's name.
os.environ["PYTHONPATH"] = os.pathsep.join([str(pathlib.Path(__file__).parent), os.environ.get("PYTHONPATH", "")])
pytestmark = pytest.mark.slow
ray = pytest.importorskip("ray")


@pytest.fixture(scope="module")
def cluster(tmp_path_factory):
    from ray.cluster_utils import Cluster

    head = {"num_cpus": 1, "include_dashboard": False, "object_store_memory": 10**8}
    nodes = Cluster(initialize_head=True, head_node_args=head)
    nodes.add_node(num_cpus=1, object_store_memory=10**8)
    nodes.wait_for_nodes()
    yield nodes
    ray.shutdown()
    nodes.shutdown()


def test_two_nodes_give_the_rows_of_one_process(cluster, folder, of_one_process, tmp_path):  # noqa: F811
    run(folder, "--out", tmp_path, "--engine", "ray", "--address", cluster.address)
    assert rows(tmp_path) == rows(of_one_process)


def die_once(task):
    marker = pathlib.Path(task[1]) / str(task[0])
    if task[0] == 5 or (task[0] % 3 == 0 and not marker.exists()):
        marker.touch()
        os.kill(os.getpid(), signal.SIGKILL)
    return ray.get_runtime_context().get_node_id()


def test_a_killed_worker_loses_nothing(cluster, tmp_path):
    tasks = [(i, str(tmp_path)) for i in range(12)]
    results = {task[0]: result for task, result in on_ray.run(die_once, tasks, None, cluster.address)}
    assert sorted(results) == list(range(12))
    assert isinstance(results.pop(5), retry.Died)
    # On a busy machine one node may have done it all before the other has a worker.
    assert 1 <= len(set(results.values())) <= 2


class NotOnThatMachine:
    """Work that a worker cannot unpack."""

    def __reduce__(self):
        return __import__, ("not_there",)


def test_workers_that_cannot_start_end_the_run(cluster):
    with pytest.raises(RuntimeError, match="a worker cannot start"):
        list(on_ray.run(NotOnThatMachine(), [1], None, cluster.address))


def test_a_lost_node_loses_nothing(cluster, tmp_path):
    third = cluster.add_node(num_cpus=1, object_store_memory=10**8)
    cluster.wait_for_nodes()
    results = {}
    for task, result in on_ray.run(abs, range(200), None, cluster.address):
        results[task] = result
        if len(results) == 20:
            cluster.remove_node(third, allow_graceful=False)
    assert results == {task: task for task in range(200)}
