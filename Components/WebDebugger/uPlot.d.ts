// What the page uses of the plotting library in vendor/.
declare class uPlot {
    constructor(options: uPlot.Options, data: uPlot.Data, parent: HTMLElement);
    setData(data: uPlot.Data, resetScales?: boolean): void;
    setScale(scale: string, limits: { min: number; max: number }): void;
    setSize(size: { width: number; height: number }): void;
    setCursor(place: { left: number; top: number }, fire?: boolean): void;
    setSelect(place: { left: number; top: number; width: number; height: number }, fire?: boolean): void;
    redraw(rebuildPaths?: boolean): void;
    destroy(): void;
    static readonly paths: { stepped(options: { align: 1 | -1 }): uPlot.Paths };
    valToPos(value: number, scale: string): number;
    posToVal(position: number, scale: string): number;
    readonly over: HTMLElement;
    readonly select: { left: number; width: number };
    readonly cursor: { left?: number; top?: number; idx?: number | null };
}

declare namespace uPlot {
    type Data = (number[] | (number | null)[])[];
    type Paths = (plot: uPlot, series: number, from: number, to: number) => unknown;
    interface Axis {
        stroke?: () => string;
        grid?: { stroke: () => string; width: number };
        ticks?: { stroke: () => string; width: number };
        size?: number;
        font?: string;
        values?: (plot: uPlot, splits: number[]) => string[];
    }
    interface Series {
        label?: string;
        stroke?: string | (() => string);
        dash?: number[];
        width?: number;
        points?: { show: boolean };
        paths?: Paths;
        pxAlign?: number;
    }
    interface Options {
        width: number;
        height: number;
        padding: [number, number, number, number];
        legend: { show: boolean };
        scales: { x: { time: boolean } };
        axes: Axis[];
        series: Series[];
        cursor: {
            y: boolean;
            drag: { x: boolean; y: boolean; setScale: boolean; dist: number };
            bind: { dblclick: () => null };
            points: { size: number };
        };
        hooks: { setCursor: ((plot: uPlot) => void)[]; setSelect: ((plot: uPlot) => void)[] };
    }
}
