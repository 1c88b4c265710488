"""Many recordings over many cores or machines: `python -m quibo.fleet --help`, docs/python.md."""
