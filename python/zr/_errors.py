"""The platform's one error type."""


class ZRError(Exception):
    """An error of the ZR platform: the module and method it concerns, and what went wrong.

    Raised with exactly the three fields a peer sent, or, for failures found here, the fields the
    C++ client would give (e.g. "module destroyed" when the peer's host died). Its text is the
    C++ error's: "MODULE::METHOD: DESCRIPTION", without doubling a method field's own ": ", then
    " (FILE:LINE)" when it names a source file (only the three fields cross the wire)."""

    def __init__(self, module, method, description, file=None, line=0):
        super().__init__(module, method, description)
        self.module = module
        self.method = method
        self.description = description
        self.file = file
        self.line = line

    def __str__(self):
        t = self.module
        if self.module and self.method:
            t += "::"
        t += self.method
        if self.description:
            if t.endswith(":"):
                t += " "
            elif t and not t.endswith(": "):
                t += ": "
            t += self.description
        if self.file:
            t += " (%s:%d)" % (self.file, self.line)
        return t or "unknown error"
