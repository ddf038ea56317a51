"""A first look at pytramel: tensors, a hand-made graph and its gradients."""
import numpy as np

from pytramel.dtype import kfloat64
from pytramel.tensor.tensor import CoreTensor, QTensor, sums

x = QTensor([2.0], requires_grad=True)
y = QTensor([3.0], requires_grad=True)

# z = x*y + x, with its derivative functions written by hand: each edge maps
# the incoming gradient (a core tensor) to the gradient of its input.
xy = QTensor(x.getdata() * y.getdata(), requires_grad=True, nodes=[
    QTensor.GraphNode(x, lambda g: np.array(g) * y.getdata(), "d(xy)/dx"),
    QTensor.GraphNode(y, lambda g: np.array(g) * x.getdata(), "d(xy)/dy"),
])
z = QTensor(xy.getdata() + x.getdata(), requires_grad=True, nodes=[
    QTensor.GraphNode(xy, lambda g: g, "d(z)/d(xy)"),
    QTensor.GraphNode(x, lambda g: g, "d(z)/dx"),
])
z.backward()
print("dz/dx =", x.grad.getdata(), " dz/dy =", y.grad.getdata())  # 4 and 2

# astype is differentiable: the gradient comes back in the source dtype.
w = QTensor(np.array([1.5, -0.5], np.float32), requires_grad=True)
w.astype(kfloat64).backward()
print("grad of w:", w.grad.getdata(), w.grad.dtype == w.dtype)
print("core tensor:", CoreTensor(np.eye(2), 0, -1))

# Indexing: a read is differentiable, and a set keeps the target's graph while
# linking the value written (it receives the gradient of the region).
theta = QTensor(np.arange(6.0).reshape(2, 3), requires_grad=True)
v = QTensor([10.0, 20.0], requires_grad=True)
psi = theta * 1.0
psi[:, 0] = v
loss = sums(psi[[0, 1], [2, 0]] * QTensor([3.0, 4.0]))
loss.backward()
print("grad of theta:", theta.grad.getdata().tolist(), " grad of v:", v.grad.getdata().tolist())
