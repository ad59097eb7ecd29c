"""The stub against the module, and the documents against the stub."""
import ast
import doctest
import importlib.util
import inspect
import pathlib
import subprocess
import sys
import tempfile
import unittest

import crrecord
from crrecord import _crrecord, _store
from golden import ROOT

PACKAGE = pathlib.Path(_crrecord.__file__).parent

def public(scope):
    return {name for name in vars(scope) if not name.startswith("_")}

def parameters(function):  # of the stub, as inspect has them
    given = function.args
    defaults = [None] * (len(given.args) - len(given.defaults)) + given.defaults
    return [(argument.arg, default and eval(ast.unparse(default)), keyword)
            for keyword, arguments in ((False, zip(given.args, defaults)), (True, zip(given.kwonlyargs, given.kw_defaults)))
            for argument, default in arguments]

def found_parameters(function):
    return [(p.name, None if p.default is p.empty else p.default, p.kind == p.KEYWORD_ONLY)
            for p in inspect.signature(function).parameters.values()]

class Types(unittest.TestCase):
    def check(self, declared, scope, found):
        declared = [node for node in declared if getattr(node, "name", "_")[0] != "_" or
                    getattr(node, "name", "") == "__init__"]
        self.assertEqual({node.name for node in declared} - {"__init__"}, found)
        for node in declared:
            member, decorators = getattr(scope, node.name), [ast.unparse(d) for d in node.decorator_list]
            if isinstance(node, ast.ClassDef) and "IntEnum" in map(ast.unparse, node.bases):
                self.assertEqual([line.target.id for line in node.body], [value.name for value in member])
            elif isinstance(node, ast.ClassDef):
                self.check(node.body, member, public(member))
            elif not any("setter" in d or "property" in d or "overload" in d for d in decorators):
                self.assertEqual((node.name, found_parameters(member)), (node.name, parameters(node)))
            if not any("setter" in d for d in decorators) and node.name != "__init__" and ast.get_docstring(node):
                self.assertEqual(ast.get_docstring(node), inspect.getdoc(member))

    def test_stubs_are_the_modules(self):
        for module in (_crrecord, _store):
            stub = ast.parse((PACKAGE / f"{module.__name__.rpartition('.')[2]}.pyi").read_text())
            self.check(stub.body, module, public(module) - {"Error"})
        self.assertEqual(public(crrecord) & set(crrecord.__all__), set(crrecord.__all__))

    @unittest.skipUnless(importlib.util.find_spec("mypy"), "mypy is not installed")
    def test_documents_pass_mypy_strict(self):
        with tempfile.TemporaryDirectory() as folder:
            scripts = []
            for document in (*(ROOT / "docs").glob("*.md"), ROOT / "README.md"):
                examples = doctest.DocTestParser().get_examples(document.read_text())
                if examples:
                    scripts.append(pathlib.Path(folder) / f"{document.stem}.py".replace("-", "_"))
                    scripts[-1].write_text("".join(example.source for example in examples))
            self.assertIn("python.py", [script.name for script in scripts])
            config = pathlib.Path(folder) / "mypy.ini"
            config.write_text("[mypy-pandas]\nignore_missing_imports = True\n")  # it has no types
            ran = subprocess.run([sys.executable, "-m", "mypy", "--strict", f"--config-file={config}",
                                  f"--cache-dir={folder}/cache", *scripts],
                                 env={"MYPYPATH": str(PACKAGE.parent)}, capture_output=True, text=True)
            self.assertEqual((ran.returncode, ran.stdout), (0, f"Success: no issues found in {len(scripts)} source files\n"))
