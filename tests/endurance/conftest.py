"""An nginx of the test's own, which it may stop, start and give other certificates."""

import pytest
from gateway import Gateway
from mirrors import Mirror, Nginx
from model_mirror import ModelMirror


@pytest.fixture
def own_nginx(tmp_path):
    folder = tmp_path / "nginx"
    folder.mkdir()
    server = Nginx(folder)
    yield server
    server.stop()


@pytest.fixture
def own_mirror(own_nginx, tmp_path):
    return ModelMirror(Mirror(own_nginx.root, "defs"), own_nginx.url(), tmp_path / "scratch")


@pytest.fixture
def own_gateway(own_nginx, tmp_path):
    folder = tmp_path / "machine"
    folder.mkdir()
    machine = Gateway(folder, mirror_base_url=own_nginx.url(), mirror_subdir="defs", ca_path=own_nginx.ca_path)
    yield machine
    machine.end_all()
