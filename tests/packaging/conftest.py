"""The booted gateways of these tests."""

from booted_fixtures import bare_gateway, gateway, installation, module_gateway, packages  # noqa: F401
