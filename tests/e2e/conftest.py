"""What the tests of the operators' tools share."""

import types

import pytest
from scripted_server import ScriptedServer

pytest.register_assert_rewrite("mirror_tool", "tools")  # so that they too show what was expected and what came

import mirror_tool  # noqa: E402  (the line above has to come first)
from mirrors_page import servers  # noqa: E402, F401


@pytest.fixture
def own(tmp_path):
    return mirror_tool.OwnMirror(tmp_path)


@pytest.fixture
def copy(tmp_path, nginx, mirror):
    return mirror_tool.Copy(tmp_path, nginx, mirror)


@pytest.fixture
def scripted(tmp_path, authority, scripted_context):
    """A server that does what a test's script says; its certificate is good for those who have its authority."""
    ca_path = tmp_path / "scripted-ca.pem"
    authority.cert_pem.write_to_path(ca_path)
    server = ScriptedServer(scripted_context)
    yield types.SimpleNamespace(server=server, url=server.base().removesuffix("/defs"), ca_path=ca_path)
    server.stop()
