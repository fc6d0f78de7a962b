// Holds the style of the page, and the rule that lets a browser apply this style and nothing else.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_PAGE_STYLE_HPP
#define SCRUB_PAGE_STYLE_HPP

namespace scrub {

inline constexpr const char *kPageStyle = R"css(
:root {
  color-scheme: light dark;
  --back: #fff; --text: #1b1f24; --quiet: #57606a; --edge: #d0d7de; --stripe: #f6f8fa;
  --data: #0b62c4; --good: #116329; --bad: #b3141d; --odd: #8a5a00; --other: #4a4aa8;
}
@media (prefers-color-scheme: dark) {
  :root {
    --back: #14171c; --text: #e4e8ee; --quiet: #9aa5b1; --edge: #39414b; --stripe: #1c2128;
    --data: #62a8ff; --good: #1f7a3a; --bad: #c0262f; --odd: #966300; --other: #5757c2;
  }
}
* { box-sizing: border-box; }
body { margin: 0; background: var(--back); color: var(--text); font: 16px/1.5 system-ui, sans-serif; }
header, main, footer { padding: 1rem max(1rem, calc(50vw - 36rem)); }
header { color: #fff; padding-top: 1.5rem; padding-bottom: 1.5rem; }
header.clean { background: var(--good); }
header.damage, header.failed { background: var(--bad); }
header.incomplete { background: var(--odd); }
header.different { background: var(--other); }
header p { margin: .25rem 0; }
p, li { overflow-wrap: anywhere; }
h1 { margin: 0; font-size: clamp(2rem, 7vw, 3.5rem); line-height: 1.1; letter-spacing: .02em; }
h2 { margin: 2rem 0 .5rem; padding-bottom: .25rem; border-bottom: 2px solid var(--edge); }
h3 { margin: 1.5rem 0 .5rem; }
.path, .code { font-family: ui-monospace, monospace; font-size: .9em; overflow-wrap: anywhere; }
.scroll { overflow: auto; max-height: 36rem; }
.code { overflow-wrap: normal; }
.none { color: var(--quiet); }
thead th { position: sticky; top: 0; background: var(--back); }
table { border-collapse: collapse; }
caption { text-align: left; color: var(--quiet); padding-bottom: .25rem; }
th, td { padding: .25rem .75rem; border-bottom: 1px solid var(--edge); text-align: left; vertical-align: top; }
tbody tr:nth-child(even) { background: var(--stripe); }
th[scope=row] { font-weight: normal; }
th[scope=row].path { min-width: 14rem; }
.path + td { white-space: nowrap; }
.number { text-align: right; font-variant-numeric: tabular-nums; white-space: nowrap; }
.plots { display: grid; grid-template-columns: repeat(auto-fit, minmax(min(100%, 28rem), 1fr)); gap: 1rem 2rem; }
.plots { margin-top: 1rem; }
.plots h3 { margin-top: .5rem; }
figure { margin: 0; }
figcaption { color: var(--quiet); }
.plot { display: block; width: 100%; max-width: 45rem; height: auto; }
.usage { display: block; width: 160px; height: 28px; }
.plot text { fill: var(--text); font-size: 13px; }
.plot .title { fill: var(--quiet); }
.plot .end { text-anchor: end; }
.plot .middle { text-anchor: middle; }
.grid { stroke: var(--edge); }
.tick { stroke: var(--text); }
.line { fill: none; stroke: var(--data); stroke-width: 1.5; }
.area { fill: var(--data); opacity: .2; }
.bar { fill: var(--data); }
footer { color: var(--quiet); }
@media print { header { color: #000; background: none !important; border: 3px solid; } .scroll { max-height: none; } }
)css";

// The SHA-256 of the style. A browser that finds another one says which it expects.
inline constexpr const char *kPagePolicy =
    "default-src 'none'; style-src 'sha256-p/HmlJuLGzQ0uoNgmoiKGW8apgGA44XAAF6//Hewc7g='; base-uri "
    "'none'; form-action 'none'";

} // namespace scrub

#endif
