"""Writes a trunk as ONNX, and reads one back: normalisation folded, dynamic batch, one output `features` at stride 8.

The graph is Sub, Mul, Conv, Relu, MaxPool, Add, Resize, opset 13. Mean and deviation stand in front as operations of
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

    def block(self, source, block, name):
        inner = self.convolution(source, block.conv1, block.bn1, name + '.conv1')
        inner = self.node('Relu', [inner], name + '.relu1')
        outer = self.convolution(inner, block.conv2, block.bn2, name + '.conv2')
        if block.shortcut is not None:
            source = self.convolution(source, block.shortcut[0], block.shortcut[1], name + '.shortcut')
        return self.node('Relu', [self.node('Add', [outer, source], name + '.sum')], name)


def to_onnx(trunk, side, notes):
    """The trunk as an ONNX model for inputs of `side` pixels. `notes`: texts kept in the model's metadata."""
    graph = _Graph()
    plane = (1, 3, 1, 1)
    shifted = graph.node('Sub', ['input', graph.constant('mean', np.full(plane, network.MEAN, np.float32))], 'centred')
    x = graph.node('Mul', [shifted, graph.constant('inverse_deviation', np.full(plane, 1 / network.DEVIATION, np.float32))], 'normalised')
    x = graph.node('Relu', [graph.convolution(x, trunk.conv1, trunk.bn1, 'conv1')], 'stem')
    x = graph.node('MaxPool', [x], 'pool', kernel_shape=[3, 3], strides=[2, 2], pads=[1, 1, 1, 1])
    for index, block in enumerate(trunk.layer1):
        x = graph.block(x, block, f'layer1.{index}')
    for index, block in enumerate(trunk.layer2):
        x = graph.block(x, block, f'layer2.{index}')
    if trunk.geometry == 'joined':
        coarse = x
        for index, block in enumerate(trunk.layer3):
            coarse = graph.block(coarse, block, f'layer3.{index}')
        fine = graph.convolution(x, trunk.neck_fine, None, 'neck_fine')
        coarse = graph.convolution(coarse, trunk.neck_coarse, None, 'neck_coarse')
        scales = graph.constant('scales', np.array([1, 1, 2, 2], np.float32))
        coarse = graph.node('Resize', [coarse, '', scales], 'coarse_upsampled', mode='linear',
                            coordinate_transformation_mode='asymmetric')
        graph.node('Add', [fine, coarse], 'features')
    else:
        graph.convolution(x, trunk.neck_fine, None, 'features')
    cells = side // 8
    inputs = [helper.make_tensor_value_info('input', TensorProto.FLOAT, ['batch', 3, side, side])]
    outputs = [helper.make_tensor_value_info('features', TensorProto.FLOAT, ['batch', trunk.channels, cells, cells])]
    made = helper.make_graph(graph.nodes, 'ostrel_trunk', inputs, outputs, graph.weights)
    model = helper.make_model(made, opset_imports=[helper.make_opsetid('', 13)], producer_name='ostrel')
    model.ir_version = 7
    helper.set_model_props(model, notes)
    onnx.checker.check_model(model)
    return model


def write(trunk, path, side=192, notes=None):
    part = path + '.part'
    onnx.save(to_onnx(trunk, side, notes or {}), part)
    os.replace(part, path)


def _fill(weights, name, conv, norm):
    """Sets a convolution from a folded one; its normalisation, where it has one, is left with the bias alone."""
    with torch.no_grad():
        conv.weight.copy_(weights[name + '.weight'])
        bias = weights[name + '.bias']
        if norm is None:
            if conv.bias is not None:
                conv.bias.copy_(bias)
            return
        norm.running_mean.zero_()
        norm.running_var.fill_(1.0 - norm.eps)
        norm.weight.fill_(1.0)
        norm.bias.copy_(bias)


def read(path):
    """The trunk that `write` wrote. Training goes on from it with frozen statistics, that is in the second stage."""
    weights = {tensor.name: torch.from_numpy(numpy_helper.to_array(tensor).copy())
               for tensor in onnx.load(path).graph.initializer}
    joined = 'neck_coarse.weight' in weights
    neck = 'neck_fine' if joined else 'features'
    trunk = network.Trunk(weights[neck + '.weight'].shape[0], 'joined' if joined else 'stage')
    _fill(weights, 'conv1', trunk.conv1, trunk.bn1)
    for stage in ('layer1', 'layer2', 'layer3') if joined else ('layer1', 'layer2'):
        for index, block in enumerate(getattr(trunk, stage)):
            name = f'{stage}.{index}'
            _fill(weights, name + '.conv1', block.conv1, block.bn1)
            _fill(weights, name + '.conv2', block.conv2, block.bn2)
            if block.shortcut is not None:
                _fill(weights, name + '.shortcut', *block.shortcut)
    _fill(weights, neck, trunk.neck_fine, None)
    if joined:
        _fill(weights, 'neck_coarse', trunk.neck_coarse, None)
    return trunk
