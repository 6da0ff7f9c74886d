"""The booted gateways of these tests."""

from booted_fixtures import gateway, installation, module_gateway  # noqa: F401
