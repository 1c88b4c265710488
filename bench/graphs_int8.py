"""The wake-up network as a quantised ONNX graph for peers.py: quantised convolutions, matrix products (QGemm) and
additions, random weights, the streaming state as inputs and outputs."""

import numpy as np
import onnx
import onnxruntime
from onnx import TensorProto, helper, numpy_helper

MS = "com.microsoft"


class Graph:
    """Builds a model node by node; every quantised tensor has scale 0.05 and zero point 128 or 0."""

    def __init__(self):
        self.random = np.random.default_rng(1)
        self.nodes, self.constants, self.inputs, self.outputs = [], [], [], []
        self.scale = self.constant(np.float32(0.05))
        self.middle = self.constant(np.uint8(128))
        self.none = self.constant(np.int8(0))
        self.weight_scale = self.constant(np.float32(0.01))

    def constant(self, value):
        name = f"c{len(self.constants)}"
        self.constants.append(numpy_helper.from_array(np.asarray(value), name))
        return name

    def node(self, op, inputs, outputs=1, domain="", **attributes):
        names = [f"n{len(self.nodes)}_{i}" for i in range(outputs)]
        self.nodes.append(helper.make_node(op, inputs, names, domain=domain, **attributes))
        return names[0] if outputs == 1 else names

    def input(self, name, shape):
        self.inputs.append(helper.make_tensor_value_info(name, TensorProto.UINT8, shape))
        return name

    def output(self, name, kind=TensorProto.UINT8):
        self.outputs.append(helper.make_tensor_value_info(name, kind, None))

    def weights(self, *shape):
        return self.constant(self.random.integers(-127, 128, shape, dtype=np.int8))

    def bias(self, n):
        return self.constant(self.random.integers(-1000, 1000, n, dtype=np.int32))

    def conv(self, x, outputs, inputs, kernel, stride=1, group=1):
        return self.node(
            "QLinearConv",
            [
                x,
                self.scale,
                self.middle,
                self.weights(outputs, inputs, *kernel),
                self.weight_scale,
                self.none,
                self.scale,
                self.middle,
                self.bias(outputs),
            ],
            strides=[1, stride],
            group=group,
            kernel_shape=list(kernel),
        )

    def dense(self, x, outputs, inputs):
        return self.node(
            "QGemm",
            [
                x,
                self.scale,
                self.middle,
                self.weights(outputs, inputs),
                self.weight_scale,
                self.none,
                self.bias(outputs),
                self.scale,
                self.middle,
            ],
            domain=MS,
            transB=1,
        )

    def real(self, x):
        return self.node("DequantizeLinear", [x, self.scale, self.middle])

    def codes(self, x):
        return self.node("QuantizeLinear", [x, self.scale, self.middle])

    def stored(self, name, shape, new, axis, keep):
        """The state `name` before `new`; what comes next is the last `keep` of both."""
        both = self.node("Concat", [self.input(name, shape), new], axis=axis)
        ends = [self.constant(np.array([v], np.int64)) for v in (-keep, 2**31 - 1, axis)]
        self.output(self.node("Slice", [both, *ends]))
        return both

    def session(self):
        graph = helper.make_graph(self.nodes, "wakeup", self.inputs, self.outputs, self.constants)
        model = helper.make_model(graph, ir_version=8, opset_imports=[helper.make_opsetid("", 17), helper.make_opsetid(MS, 1)])
        onnx.shape_inference.infer_shapes(model)
        options = onnxruntime.SessionOptions()
        options.intra_op_num_threads = options.inter_op_num_threads = 1
        return onnxruntime.InferenceSession(model.SerializeToString(), options, ["CPUExecutionProvider"])


def network():
    g = Graph()
    x = g.stored("conv1_left", [1, 1, 1, 40], g.input("features", [1, 1, 3, 40]), 2, 1)
    x = g.conv(x, 16, 1, (2, 4), 2)
    x = g.stored("conv2_left", [1, 16, 1, 19], x, 2, 1)
    x = g.conv(g.conv(x, 16, 1, (2, 4), 2, 16), 48, 16, (1, 1))
    x = g.stored("conv3_left", [1, 48, 1, 8], x, 2, 1)
    x = g.conv(g.conv(x, 48, 1, (2, 4), 2, 48), 64, 48, (1, 1))
    x = g.conv(g.conv(x, 64, 1, (3, 3), 1, 64), 128, 64, (1, 1))
    x = g.node("Reshape", [x, g.constant(np.array([1, 128], np.int64))])

    state = g.input("hid", [1, 128])
    r, z, n = zip(*(g.node("Split", [g.real(g.dense(v, 384, 128))], 3, axis=1) for v in (x, state)))
    r = g.node("Sigmoid", [g.node("Add", list(r))])
    z = g.node("Sigmoid", [g.node("Add", list(z))])
    n = g.node("Tanh", [g.node("Add", [n[0], g.node("Mul", [r, n[1]])])])
    x = g.codes(g.node("Add", [n, g.node("Mul", [z, g.node("Sub", [g.real(state), n])])]))
    g.output(x)

    ones, zeros = g.constant(np.ones(256, np.float32)), g.constant(np.zeros(256, np.float32))
    for block, width in enumerate((128, 256, 256, 256), 1):
        current = g.dense(x, 164, width)
        kept = g.input(f"qleft{block}", [1, 164, 1, 8])
        filtered = g.conv(kept, 164, 1, (1, 8), 1, 164)
        column = g.node("Reshape", [current, g.constant(np.array([1, 164, 1, 1], np.int64))])
        both = g.node("Concat", [kept, column], axis=3)
        ends = [g.constant(np.array([v], np.int64)) for v in (1, 9, 3)]
        g.output(g.node("Slice", [both, *ends]))
        total = g.node("QLinearAdd", [column, g.scale, g.middle, filtered, g.scale, g.middle, g.scale, g.middle], domain=MS)
        total = g.node("Reshape", [total, g.constant(np.array([1, 164], np.int64))])
        x = g.codes(g.node("LayerNormalization", [g.real(g.dense(total, 256, 164)), ones, zeros]))
    g.output(g.node("Softmax", [g.real(g.dense(x, 146, 256))]), TensorProto.FLOAT)
    return g.session()


def bound(session):
    binding = session.io_binding()
    random = np.random.default_rng(2)
    for i in session.get_inputs():
        binding.bind_cpu_input(i.name, random.integers(0, 256, i.shape, dtype=np.uint8))
    for o in session.get_outputs():
        binding.bind_output(o.name)
    return lambda: session.run_with_iobinding(binding)
