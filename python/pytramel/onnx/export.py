"""The export trace: operator records and the recording settings.

The two settings live in the core engine, so operators test them without
calling into Python; this module reads and writes the same store.
"""
from .. import _core

_RECORD_FIELDS = (
    "opid", "opname", "op_input_id_lists", "op_input_shape_lists", "op_output_id_list",
    "op_output_shape_list", "op_attribute", "op_para_buffer_id_lists",
    "op_para_buffer_shape_lists", "op_input_dtype_lists", "op_output_dtype_lists",
)


class OPNodesInfo:
    """The export record of one operation; made by keywords only."""

    __slots__ = _RECORD_FIELDS

    def __init__(self, *, opid, opname, op_input_id_lists, op_input_shape_lists,
                 op_output_id_list, op_output_shape_list, op_attribute,
                 op_para_buffer_id_lists, op_para_buffer_shape_lists,
                 op_input_dtype_lists, op_output_dtype_lists):
        self.opid = opid
        self.opname = opname
        self.op_input_id_lists = op_input_id_lists
        self.op_input_shape_lists = op_input_shape_lists
        self.op_output_id_list = op_output_id_list
        self.op_output_shape_list = op_output_shape_list
        self.op_attribute = op_attribute
        self.op_para_buffer_id_lists = op_para_buffer_id_lists
        self.op_para_buffer_shape_lists = op_para_buffer_shape_lists
        self.op_input_dtype_lists = op_input_dtype_lists
        self.op_output_dtype_lists = op_output_dtype_lists

    def __repr__(self):
        return f"OPNodesInfo(opid={self.opid!r}, opname={self.opname!r})"


def get_onnx_convert_config(key):
    """The value of one recording setting, exactly as it was set.

    Args:
        key: 'save_constant' or 'save_opinfo' (both False by default).

    Returns:
        The object last given to set_onnx_convert_config for the key.
    """
    return _core._get_export_config(key)


def set_onnx_convert_config(key, value):
    """Sets one recording setting.

    Args:
        key: 'save_constant' (recording is on when it is the object True) or
            'save_opinfo' (off only when it is the object False).
        value: any object, kept as given.
    """
    _core._set_export_config(key, value)
