"""The suppressors' networks as ONNX graphs for peers.py: the layers and shapes of ours with random weights, one call
per frame (two steps); every history and recurrent state is an input and an output, bound once. The transforms, the
masking and the conversions that our rows include are not in them."""

STEPS = 2
POSITIONS = 32


class Graph:
    """An ONNX graph with random weights; activations are [1, channels, STEPS, positions]."""

    def __init__(self):
        import numpy
        import onnx

        self.numpy, self.onnx = numpy, onnx
        self.random = numpy.random.default_rng(1)
        self.nodes, self.weights, self.inputs, self.outputs = [], [], [], []

    def node(self, op, inputs, outputs=1, **attributes):
        names = [f"{op}{len(self.nodes)}_{i}" for i in range(outputs)]
        self.nodes.append(self.onnx.helper.make_node(op, inputs, names, **attributes))
        return names[0] if outputs == 1 else names

    def constant(self, values):
        name = f"c{len(self.weights)}"
        self.weights.append(self.onnx.numpy_helper.from_array(values, name))
        return name

    def integers(self, *values):
        return self.constant(self.numpy.array(values, self.numpy.int64))

    def weight(self, *shape, fan_in=100):
        limit = (3 / fan_in) ** 0.5
        return self.constant(self.random.uniform(-limit, limit, shape).astype(self.numpy.float32))

    def input(self, name, *shape):
        self.inputs.append((name, shape))
        return name

    def output(self, name):
        self.outputs.append(name)

    def conv(self, x, channels, outputs, times, positions, stride, prelu):
        history = self.input(f"history{len(self.nodes)}", 1, channels, times - 1, positions)
        frames = self.node("Concat", [history, x], axis=2)
        self.output(self.node("Slice", [frames, self.integers(STEPS), self.integers(STEPS + times - 1), self.integers(2)]))
        y = self.node(
            "Conv",
            [frames, self.weight(outputs, channels, times, 3, fan_in=channels * times * 3), self.weight(outputs)],
            kernel_shape=[times, 3],
            strides=[1, stride],
            pads=[0, 1, 0, 1],
        )
        return self.node("PRelu", [y, self.weight(outputs, 1, 1)]) if prelu else y

    def shuffle(self, y, channels, positions):
        half = channels // 2
        y = self.node("Reshape", [y, self.integers(2, half, STEPS, positions)])
        y = self.node("Transpose", [y], perm=[1, 2, 3, 0])
        return self.node("Reshape", [y, self.integers(1, half, STEPS, 2 * positions)])

    def gru(self, x, hidden, along_time, affine):
        # Sequence, batch, channels: along time every position is a batch row, along frequency every step.
        to_sequence, back = ([2, 3, 1], [2, 0, 1]) if along_time else ([3, 2, 1], [2, 1, 0])
        z = self.node("Squeeze", [x, self.integers(0)])
        z = self.node("Transpose", [z], perm=[to_sequence[0] - 1, to_sequence[1] - 1, 0])
        state = ""
        if along_time:
            state = self.input(f"state{len(self.nodes)}", 1, POSITIONS, hidden)
        sequence, last = self.node(
            "GRU",
            [z, self.weight(1, 3 * hidden, hidden), self.weight(1, 3 * hidden, hidden), self.weight(1, 6 * hidden), "", state],
            2,
            hidden_size=hidden,
            linear_before_reset=1,
        )
        if along_time:
            self.output(last)
        y = self.node("Relu", [self.node("Squeeze", [sequence, self.integers(1)])])
        y = self.node("Add", [self.node("MatMul", [y, self.weight(hidden, hidden)]), self.weight(hidden)])
        if affine:
            y = self.node("Add", [self.node("Mul", [y, self.weight(hidden)]), self.weight(hidden)])
        y = self.node("Unsqueeze", [self.node("Transpose", [y], perm=back), self.integers(0)])
        return self.node("Add", [x, y])

    def gru_stack(self, x, hidden, affine):
        for _ in range(3):
            x = self.gru(self.gru(x, hidden, True, affine), hidden, False, affine)
        return x

    def session(self):
        import onnxruntime

        make = self.onnx.helper.make_tensor_value_info
        floats = self.onnx.TensorProto.FLOAT
        graph = self.onnx.helper.make_graph(
            self.nodes,
            "net",
            [make(name, floats, shape) for name, shape in self.inputs],
            [make(name, floats, None) for name in self.outputs],
            self.weights,
        )
        model = self.onnx.helper.make_model(graph, opset_imports=[self.onnx.helper.make_opsetid("", 17)], ir_version=8)
        options = onnxruntime.SessionOptions()
        options.intra_op_num_threads = options.inter_op_num_threads = 1
        session = onnxruntime.InferenceSession(model.SerializeToString(), options, ["CPUExecutionProvider"])
        binding = session.io_binding()
        for name, shape in self.inputs:
            values = self.random.uniform(-1, 1, shape).astype(self.numpy.float32)
            binding.bind_ortvalue_input(name, onnxruntime.OrtValue.ortvalue_from_numpy(values))
        for name in self.outputs:
            binding.bind_output(name)
        return lambda: session.run_with_iobinding(binding)


def noise_suppressor():
    g = Graph()
    x, channels, positions = g.input("spectrum", 1, 2, STEPS, 512), 2, 512
    for outputs in 16, 32, 32, 32:
        x = g.conv(x, channels, outputs, 3, positions, 2, True)
        channels, positions = outputs, positions // 2
    x = g.gru_stack(x, 32, True)
    for outputs in 32, 32, 16, 4:
        x = g.shuffle(g.conv(x, channels, outputs, 3, positions, 1, False), outputs, positions)
        channels, positions = outputs // 2, 2 * positions
    g.output(g.node("Sigmoid", [x]))
    return g.session()


def echo_suppressor():
    g = Graph()
    x, channels, positions = g.input("spectra", 1, 4, STEPS, 512), 4, 512
    for outputs in 16, 32, 48, 64:
        x = g.conv(x, channels, outputs, 2, positions, 2, True)
        channels, positions = outputs, positions // 2
    encoded = []
    for _ in range(4):
        x = g.conv(x, 64, 64, 3, 32, 1, True)
        encoded.append(x)
    x = g.gru_stack(x, 64, False)
    for skip in None, encoded[2], encoded[1], encoded[0]:
        x = g.node("Add", [g.conv(x, 64, 64, 3, 32, 1, True), skip or x])
    for outputs in 64, 32, 16, 4:
        x = g.shuffle(g.conv(x, channels, outputs, 2, positions, 1, False), outputs, positions)
        channels, positions = outputs // 2, 2 * positions
    # The complex groups of 8: a batched product per group.
    grouped = g.node("Reshape", [x, g.integers(2, STEPS, 64, 1, 8)])
    products = [
        g.node("Add", [g.node("MatMul", [grouped, g.weight(64, 8, 8, fan_in=8)]), g.weight(64, 1, 8)]) for _ in range(2)
    ]
    g.output(g.node("Sigmoid", [g.node("Sub", products)]))
    return g.session()
