class ZRError(Exception):
    """An error of the ZR platform: the module and method it concerns, and what went wrong.

    Raised with exactly the three fields a peer sent, or, for failures found here, the fields the
    C++ client would give (e.g. "module destroyed" when the peer's host died)."""

    def __init__(self, module, method, description):
        super().__init__(module, method, description)
        self.module = module
        self.method = method
        self.description = description

    def __str__(self):
        return "%s::%s: %s" % (self.module, self.method, self.description)
