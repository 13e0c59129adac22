"""What docs/python.md says of the client, checked against the client."""

import re

import zr
from conftest import ROOT


def test_describe_gives_the_keys_the_page_lists(start_host):
    page = (ROOT / "docs" / "python.md").read_text()
    bullet = re.search(r"^- `client\.describe\(name\)`:(.*?)(?=^- |^$)", page, re.M | re.S)
    assert bullet, "docs/python.md has a bullet for client.describe"
    listed = re.findall(r"`(\w+)`", bullet.group(1).split("as in")[0])
    host = start_host("--memory", "-e", "SoundLevel")
    with zr.connect(host.directory) as c:
        described = c.describe("SoundLevel")
    assert described and all(list(d) == listed for d in described), (listed, described[0])
    threshold = next(d for d in described if d["method"] == "setThreshold")
    assert [p[:2] for p in threshold["parameters"]] == [("thresholdDb", "float"),
                                                         ("hysteresisDb", "float")]
