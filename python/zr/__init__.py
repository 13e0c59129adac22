"""A client of the ZR platform in pure Python: call, watch and host modules over the wire."""

from ._client import Client, Proxy, connect, method
from ._errors import ZRError

__all__ = ["Client", "Proxy", "ZRError", "connect", "method"]
