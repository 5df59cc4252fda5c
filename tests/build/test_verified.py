"""The table of facts that halvard_run --verify asks for: whole, told, and one with the engines."""

import re

import pytest

import fact_table
from installer import engines, paths, verified
from installer.engines import Engine

FACTS = verified.facts()


def asked_in(subject: str) -> list[str]:
    """The names for which the source of a subject has functions."""
    source = (paths.FACTS.parent / f"{subject}.cpp").read_text()
    (listed,) = re.findall(r"^[^\n]*\w+Facts\(\) \{\n[^\n]*\{\n(.*?)\n    \};", source, re.M | re.S)
    return re.findall(r'\{L"([\w-]+)", ', listed)


def test_there_are_enough_facts():
    assert len(FACTS) > 80


@pytest.mark.parametrize("subject", dict.fromkeys(fact.subject for fact in FACTS))
def test_every_fact_has_a_function_in_the_file_of_its_subject(subject):
    assert asked_in(subject) == [fact.name for fact in FACTS if fact.subject == subject]


@pytest.mark.parametrize("fact", FACTS, ids=lambda fact: fact.name)
def test_the_place_that_relies_on_a_fact_exists(fact):
    files = re.findall(r"\b((?:[\w-]+/)+[\w-]+\.(?:cpp|h|md))", fact.relies)
    assert files
    texts = []
    for name in files:
        file = paths.ROOT / name if name.startswith("docs/") else paths.LIBRARY_EXPORTS.parent / name
        texts.append(file.read_text())
    for name in re.findall(r"`(?:\w+::)?(\w+)`", fact.relies):
        assert any(name in text for text in [*texts, paths.LIBRARY_EXPORTS.read_text()]), name


def test_a_fact_about_a_difference_of_the_engines_agrees_with_it():
    table = engines.differences()
    told = [fact for fact in FACTS if fact.difference]
    assert len(told) >= 6
    for fact in told:
        values = {engine: each.value for engine, each in table[fact.difference].behaviours.items()}
        for engine in (Engine.WINE_8, Engine.WINE_10):
            same = values[engine] == values[Engine.WINDOWS]
            assert fact.differs(engine) != same, (fact.name, engine)


def test_what_a_difference_means_is_told_of_facts_that_are_asked_for():
    page = paths.FACTS_DOCUMENT.read_text()
    part = page.partition("## What a difference means for a package\n")[2].partition("\n## ")[0]
    named = re.findall(r"`([\w-]+)`", " ".join(re.findall(r"^\| (`.*?) \| ", part, re.MULTILINE)))
    assert len(named) > 40 and len(named) == len(set(named))
    assert set(named) - {fact.name for fact in FACTS} == set()


def test_the_program_and_the_page_are_made_of_the_table():
    assert paths.FACT_TABLE.read_text() == fact_table.source(FACTS), "./run generate writes it anew"
    page = paths.FACTS_DOCUMENT.read_text()
    assert page == fact_table.document(FACTS, page), "./run generate writes it anew"
    for fact in FACTS:
        assert f"**{fact.name}**: {fact.about}" in page


def test_the_page_tells_the_exit_codes_of_the_program():
    told = re.findall(r"^\| (\d+) \|", paths.FACTS_DOCUMENT.read_text(), re.MULTILINE)
    source = (paths.FACTS.parent / "verify.cpp").read_text()
    assert told == re.findall(r"^  (\d+) +\w", source, re.MULTILINE)


def test_a_page_without_a_place_for_the_list_is_refused():
    with pytest.raises(ValueError, match="no place"):
        fact_table.document(FACTS, "# A page\n")


GOOD = """
[name]
subject = "files"
about = "What."
relies = "`Place`"
windows = ["1", "2"]
basis = "assumed"
wine = "1"
"""


@pytest.mark.parametrize(
    "old, new, reason",
    [
        ('wine = "1"', 'wine = ["1", "2"]', "has one outcome"),
        ('["1", "2"]', '"1 or 2"', "no outcome"),
        ('["1", "2"]', '""', "no outcome"),
        ('"What."', '"What. And more."', "not one sentence"),
        ('"What."', '"What"', "not one sentence"),
    ],
)
def test_a_row_that_lacks_something_is_refused(tmp_path, old, new, reason):
    file = tmp_path / "facts.toml"
    file.write_text(GOOD)
    (fact,) = verified.facts(file)
    assert not fact.differs(Engine.WINE_8)
    file.write_text(GOOD.replace(old, new))
    with pytest.raises(ValueError, match=reason):
        verified.facts(file)
