"""The interface as tools see it: the type stubs generated at install time,
against the references in tests/stubs, and the docstrings of _core."""
import difflib
import importlib.util
import pathlib

import pytest

import pytramel._core as C

REFERENCES = pathlib.Path(__file__).parent / "stubs"
PACKAGE = pathlib.Path(list(importlib.util.find_spec("pytramel").submodule_search_locations)[0])
REFRESH = ("If the interface changed on purpose, refresh the references from the installed package:\n"
           "    pip install . && python tools/refresh_stubs.py")


def names(root):
    return sorted(p.relative_to(root).as_posix() for p in root.rglob("*.pyi"))


def test_the_installed_stubs_are_the_referenced_ones():
    assert (PACKAGE / "py.typed").is_file()
    assert names(PACKAGE) == names(REFERENCES), REFRESH


@pytest.mark.parametrize("name", names(REFERENCES))
def test_installed_stub_matches_its_reference(name):
    installed = (PACKAGE / name).read_text().splitlines(keepends=True)
    reference = (REFERENCES / name).read_text().splitlines(keepends=True)
    diff = "".join(difflib.unified_diff(reference, installed, f"tests/stubs/{name}", f"{PACKAGE / name}"))
    if diff:
        pytest.fail(f"the installed stub differs from its reference:\n{diff}\n{REFRESH}", pytrace=False)


def core_callables():
    for scope, owner in (("_core", C), ("_core.tramel", C.tramel), ("_core.Tensor", C.Tensor)):
        for name, obj in vars(owner).items():
            if name.startswith("__") and name not in ("__init__", "__repr__", "__array__", "__dlpack__",
                                                      "__dlpack_device__"):
                continue
            if isinstance(obj, property) or (callable(obj) and not isinstance(obj, type)):
                yield f"{scope}.{name}", obj


@pytest.mark.parametrize("name,obj", list(core_callables()), ids=lambda v: v if isinstance(v, str) else "")
def test_every_core_function_is_documented(name, obj):
    if isinstance(obj, property):
        assert obj.__doc__, name
        return
    for signature, doc, _ in obj.__nb_signature__:  # one entry per overload
        assert doc and doc.split("\n", 1)[0].strip(), (name, signature)  # a summary line
        takes_arguments = not signature.split("(", 1)[1].startswith(("self)", ")"))
        assert ("\n\nArgs:\n    " in doc) == takes_arguments, (name, signature, doc)
