"""Writes a joined trunk as ONNX: normalisation folded, dynamic batch, one output `features` at stride 8.

The graph is Sub, Mul, Conv, Relu, MaxPool, Add, opset 13. Mean and deviation stand in front as operations of
their own, so that the zero padding of the first convolution is exact at the border.
"""

import os

import numpy as np
import onnx
import torch
from onnx import TensorProto, helper, numpy_helper

import network


class _Graph:
    def __init__(self):
        self.nodes, self.weights, self.count = [], [], 0

    def constant(self, name, values):
        self.weights.append(numpy_helper.from_array(np.ascontiguousarray(values), name))
        return name

    def node(self, kind, inputs, name, **attributes):
        self.nodes.append(helper.make_node(kind, inputs, [name], name=name + '.' + kind.lower(), **attributes))
        return name

    def convolution(self, source, conv, norm, name):
        weight = conv.weight.detach().double()
        bias = torch.zeros(weight.shape[0], dtype=torch.double) if conv.bias is None else conv.bias.detach().double()
        if norm is not None:
            gain = norm.weight.detach().double() / (norm.running_var.double() + norm.eps).sqrt()
            weight = weight * gain[:, None, None, None]
            bias = (bias - norm.running_mean.double()) * gain + norm.bias.detach().double()
        inputs = [source, self.constant(name + '.weight', weight.float().numpy()), self.constant(name + '.bias', bias.float().numpy())]
        return self.node('Conv', inputs, name, kernel_shape=list(conv.kernel_size), strides=list(conv.stride),
                         pads=list(conv.padding) * 2, dilations=[1, 1], group=1)

    def stem(self, source, conv, norm, name):
        """The convolution of stride 2, its rectifier and its pooling."""
        x = self.node('Relu', [self.convolution(source, conv, norm, name)], name + '.relu')
        return self.node('MaxPool', [x], name + '.pool', kernel_shape=[3, 3], strides=[2, 2], pads=[1, 1, 1, 1])

    def block(self, source, block, name):
        inner = self.convolution(source, block.conv1, block.bn1, name + '.conv1')
        inner = self.node('Relu', [inner], name + '.relu1')
        outer = self.convolution(inner, block.conv2, block.bn2, name + '.conv2')
        if block.shortcut is not None:
            source = self.convolution(source, block.shortcut[0], block.shortcut[1], name + '.shortcut')
        return self.node('Relu', [self.node('Add', [outer, source], name + '.sum')], name)


def _widened(conv, first, channels):
    """The same convolution with `channels` outputs: its own from `first` on, zero in all others. Side by side is a sum then."""
    wide = torch.nn.Conv2d(conv.in_channels, channels, conv.kernel_size, conv.stride, conv.padding)
    own = slice(first, first + conv.out_channels)
    with torch.no_grad():
        wide.weight.zero_()
        wide.bias.zero_()
        wide.weight[own], wide.bias[own] = conv.weight, conv.bias
    return wide


def to_onnx(joined, side, notes):
    """A `network.Joined` as an ONNX model for inputs of `side` pixels. `notes`: texts kept in the model's metadata."""
    graph, trunk = _Graph(), joined.trunk
    plane = (1, 3, 1, 1)
    shifted = graph.node('Sub', ['input', graph.constant('mean', np.full(plane, network.MEAN, np.float32))], 'centred')
    x = graph.node('Mul', [shifted, graph.constant('inverse_deviation', np.full(plane, 1 / network.DEVIATION, np.float32))], 'normalised')
    early = graph.stem(x, joined.early_conv, None, 'early_conv')
    x = graph.stem(x, trunk.conv1, trunk.bn1, 'conv1')
    for index, block in enumerate(trunk.layer1):
        x = graph.block(x, block, f'layer1.{index}')
    for index, block in enumerate(trunk.layer2):
        x = graph.block(x, block, f'layer2.{index}')
    trained = graph.convolution(x, _widened(joined.neck, 0, joined.channels), None, 'neck')
    early = graph.convolution(early, _widened(joined.early_neck, network.TRAINED_CHANNELS, joined.channels), None, 'early_neck')
    graph.node('Add', [trained, early], 'features')
    cells = side // 8
    inputs = [helper.make_tensor_value_info('input', TensorProto.FLOAT, ['batch', 3, side, side])]
    outputs = [helper.make_tensor_value_info('features', TensorProto.FLOAT, ['batch', joined.channels, cells, cells])]
    made = helper.make_graph(graph.nodes, 'ostrel_trunk', inputs, outputs, graph.weights)
    model = helper.make_model(made, opset_imports=[helper.make_opsetid('', 13)], producer_name='ostrel')
    model.ir_version = 7
    helper.set_model_props(model, notes)
    onnx.checker.check_model(model)
    return model


def write(joined, path, side=192, notes=None):
    part = path + '.part'
    onnx.save(to_onnx(joined, side, notes or {}), part)
    os.replace(part, path)
