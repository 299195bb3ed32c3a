// SPDX-License-Identifier: Apache-2.0
// The style sheet of a report.
#ifndef KESTREL_TOOLS_REPORT_STYLE_H
#define KESTREL_TOOLS_REPORT_STYLE_H

namespace tool {

inline constexpr char kReportStyle[] = R"css(
:root {
  color-scheme: light dark;
  --bg: #f4f6f8; --card: #fff; --ink: #15202b; --muted: #5a6878; --line: #dfe4ea; --grid: #e8ecf0;
  --track: #eef1f4; --video: #4556de; --audio: #0a8474; --hint: #b76a08; --movie: #8f4fb8;
  --media: #778593; --box: #44546a; --ok: #1a7a3a; --okbg: #e6f4ea; --bad: #b92626; --warn: #8c5105;
  --badbg: #fcebea; --code: #f0f3f6;
}
@media (prefers-color-scheme: dark) {
  :root {
    --bg: #0e1319; --card: #161d26; --ink: #e7ecf2; --muted: #9aa7b6; --line: #2a3541;
    --grid: #242e39; --track: #1d2631; --video: #8d9aff; --audio: #3acbb5; --hint: #f0a744;
    --movie: #cf94f2; --media: #57677a; --box: #8fa1b5; --ok: #55cd7e; --okbg: #14301f;
    --bad: #ff837a; --badbg: #3a1c1d; --code: #0f151c; --warn: #f0a744;
  }
}
* { box-sizing: border-box; }
body { margin: 0; background: var(--bg); color: var(--ink);
  font: 15px/1.5 system-ui, -apple-system, "Segoe UI", Roboto, "DejaVu Sans", sans-serif; }
main { max-width: 1080px; margin: 0 auto; padding: 28px 20px 40px; }
h1 { margin: 0 0 6px; font-size: 30px; line-height: 1.2; letter-spacing: -.01em;
  overflow-wrap: anywhere; }
h2 { margin: 0 0 4px; font-size: 18px; line-height: 1.3; }
h3 { margin: 0; font-size: 15px; }
p { margin: 0; }
.kicker { color: var(--muted); font-size: 12px; font-weight: 600; letter-spacing: .09em;
  text-transform: uppercase; }
.lead { font-size: 18px; font-weight: 600; display: flex; gap: 9px; align-items: center; }
.nb { white-space: nowrap; }
.muted, .note { color: var(--muted); }
.note { font-size: 13px; }
.good { color: var(--ok); } .poor { color: var(--bad); } .fair { color: var(--warn); }
.video { --hue: var(--video); } .audio { --hue: var(--audio); } .hint { --hue: var(--hint); }
.other { --hue: var(--box); }
.icon { width: 20px; height: 20px; flex: none; }
.tiles { display: grid; grid-template-columns: repeat(5, 1fr); gap: 12px;
  margin: 20px 0 0; }
.tiles div { min-width: 0; background: var(--card); border: 1px solid var(--line); border-radius: 10px;
  padding: 10px 14px; }
dt { color: var(--muted); font-size: 12px; }
dd { margin: 0; font-size: 18px; font-weight: 600; overflow-wrap: anywhere; }
dd small { display: block; font-size: 12px; font-weight: 400; color: var(--muted); }
section { background: var(--card); border: 1px solid var(--line); border-radius: 12px;
  padding: 18px 20px 20px; margin-top: 16px; }
section > .note { margin-bottom: 14px; }
.damage { border-color: var(--bad); background: var(--badbg); }
.damage h2 { color: var(--bad); }
.damage ul { margin: 6px 0 0; padding-left: 20px; overflow-wrap: anywhere; }
.pair { display: grid; grid-template-columns: 1fr 1fr; gap: 12px; margin-top: 10px; }
.medium + .medium { margin-top: 18px; }
.medium h3::before, .card h2::before { content: ""; display: inline-block; width: 11px;
  height: 11px; border-radius: 3px; background: var(--hue); margin-right: 8px; }
.api { border: 1px solid var(--line); border-radius: 10px; padding: 11px 14px; min-width: 0; }
.api.good { background: var(--okbg); border-color: transparent; color: inherit; }
.api.poor { background: var(--badbg); border-color: transparent; color: inherit; }
.api .head { display: flex; flex-wrap: wrap; gap: 2px 10px; align-items: center; }
.api .said { display: inline-flex; gap: 7px; align-items: center; font-weight: 700; }
.api.good .said { color: var(--ok); } .api.poor .said { color: var(--bad); }
.api .name { color: var(--muted); font-size: 13px; margin-left: auto; }
.api p { margin-top: 5px; font-size: 14px; }
code { font: 13px/1.45 ui-monospace, "DejaVu Sans Mono", Menlo, Consolas, monospace;
  overflow-wrap: anywhere; }
.fix { display: block; background: var(--code); border: 1px solid var(--line); border-radius: 7px;
  padding: 6px 10px; margin-top: 5px; }
.row { display: grid; grid-template-columns: 130px 1fr; gap: 12px; align-items: center;
  margin-top: 7px; }
.row .label { font-size: 13px; line-height: 1.25; overflow-wrap: anywhere; }
.row .label small { color: var(--muted); }
svg { display: block; width: 100%; }
.strip { height: 26px; background: var(--track); border-radius: 4px; }
.strip.thin { height: 18px; }
.strip rect { fill: var(--hue); }
.strip .movie { fill: var(--movie); } .strip .media { fill: var(--media); }
.strip .box { fill: var(--box); }
.scale { position: relative; height: 18px; font-size: 12px; color: var(--muted); }
.scale span { position: absolute; transform: translateX(-50%); white-space: nowrap; }
.scale .first { transform: none; } .scale .last { transform: translateX(-100%); }
.chips { display: flex; flex-wrap: wrap; gap: 4px 16px; margin: 14px 0 0; padding: 0;
  list-style: none; font-size: 13px; }
.chips li::before { content: ""; display: inline-block; width: 10px; height: 10px;
  border-radius: 3px; margin-right: 6px; background: var(--box); }
.chips .movie::before { background: var(--movie); } .chips .media::before { background: var(--media); }
.chips .gone::before { background: var(--bad); }
.facts { color: var(--muted); font-size: 14px; }
.facts b { color: var(--ink); font-weight: 600; }
.chart { margin: 16px 0 0; }
figcaption { display: flex; flex-wrap: wrap; gap: 0 10px; font-size: 13px; margin-bottom: 5px; }
figcaption b { font-weight: 600; } figcaption span { color: var(--muted); }
.plot { position: relative; margin-left: 44px; }
.plot svg { height: 110px; overflow: visible; }
.plot.low svg { height: 70px; }
.plot.ticks svg { height: 16px; background: var(--track); border-radius: 3px; }
.plot .y { position: absolute; right: 100%; margin-right: 7px; transform: translateY(50%);
  font-size: 11px; line-height: 1; color: var(--muted); white-space: nowrap; }
.grid { stroke: var(--grid); stroke-width: 1; vector-effect: non-scaling-stroke; }
.base { stroke: var(--media); stroke-width: 1; vector-effect: non-scaling-stroke; }
.limit { stroke: var(--bad); stroke-width: 1; stroke-dasharray: 4 3;
  vector-effect: non-scaling-stroke; }
.area { fill: var(--hue); fill-opacity: .2; }
.line { fill: none; stroke: var(--hue); stroke-width: 1.6; stroke-linejoin: round;
  vector-effect: non-scaling-stroke; }
.mean { stroke: var(--hue); stroke-width: 1; stroke-dasharray: 2 3; opacity: .8;
  vector-effect: non-scaling-stroke; }
.lost { fill: var(--bad); fill-opacity: .38; }
.bar { fill: var(--hue); } .bar.faint { fill-opacity: .35; } .bar.over { fill: var(--bad); }
.cap { fill: var(--ink); }
.hover { fill: var(--hue); fill-opacity: 0; } .hover:hover { fill-opacity: .18; }
.bar:hover, .strip rect:hover { filter: brightness(1.25); }
.strip .gone { fill: var(--bad); fill-opacity: .38; }
.strip .wait { fill: var(--muted); fill-opacity: .3; }
.dense { shape-rendering: crispEdges; }
.track-axis { margin: 3px 0 0 44px; }
.under { border-top: 1px dashed var(--line); margin-top: 20px; padding-top: 14px; }
.under h3::before { content: ""; display: inline-block; width: 9px; height: 9px;
  border-radius: 50%; background: var(--hint); margin-right: 8px; }
table { border-collapse: collapse; margin: 6px 0 0 44px; font-variant-numeric: tabular-nums; }
td { padding: 0 16px 0 0; }
figure details { margin: 4px 0 0 44px; } figure table { margin-left: 0; }
details { margin-top: 12px; font-size: 13px; } summary { cursor: pointer; color: var(--muted); }
pre { margin: 8px 0 0; padding: 10px 12px; background: var(--code); border-radius: 8px;
  white-space: pre-wrap; overflow-wrap: anywhere;
  font: 12px/1.5 ui-monospace, "DejaVu Sans Mono", Menlo, Consolas, monospace; }
footer { margin-top: 22px; text-align: center; color: var(--muted); font-size: 12px; }
@media (max-width: 860px) { dd { font-size: 15px; } .tiles div { padding: 10px; } }
@media (max-width: 640px) {
  main { padding: 18px 12px 28px; } h1 { font-size: 23px; } .lead { font-size: 16px; }
  section { padding: 14px 14px 16px; } .pair { grid-template-columns: 1fr; gap: 8px; }
  .row { grid-template-columns: 1fr; gap: 3px; margin-top: 9px; } .wide { display: none; }
  .tiles { grid-template-columns: 1fr 1fr; gap: 8px; } dd { font-size: 16px; }
  .tiles div:last-child { grid-column: span 2; }
  .plot, .track-axis { margin-left: 36px; } .api .name { margin-left: 0; width: 100%; }
}
@media print { body { background: #fff; } section { break-inside: avoid; } }
)css";

}  // namespace tool

#endif
