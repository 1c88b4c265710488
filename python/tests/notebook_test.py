"""The notebook runs from top to bottom and draws what it promises."""

import os
import pathlib

import pytest

pytestmark = pytest.mark.slow
nbclient, nbformat = pytest.importorskip("nbclient"), pytest.importorskip("nbformat")
NOTEBOOK = pathlib.Path(__file__).resolve().parents[2] / "docs/python.ipynb"


def test_every_cell_runs(tmp_path):
    book = nbformat.read(NOTEBOOK, as_version=4)
    resources = {"metadata": {"path": str(NOTEBOOK.parent)}}
    nbclient.NotebookClient(book, timeout=300, resources=resources).execute()
    outputs = [output for cell in book.cells if cell.cell_type == "code" for output in cell.outputs]
    assert sum("image/png" in output.get("data", {}) for output in outputs) == 4
    text = "".join(output["text"] for output in outputs if output.output_type == "stream")
    assert "threshold 1.2: 5 wakes" in text
    if "QUIBO_KEEP_NOTEBOOK" in os.environ:  # to look at
        nbformat.write(book, os.environ["QUIBO_KEEP_NOTEBOOK"])
