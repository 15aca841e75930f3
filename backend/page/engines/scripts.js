// Loads the players that are no modules, once each.

const loading = new Map();

/**
 * Runs a script of this page.
 * @param {string} path below the page's folder
 * @returns {Promise<void>} rejects where it cannot be loaded; another try is possible then
 */
export function loadScript(path) {
  const url = new URL(`../${path}`, import.meta.url).href;
  if (!loading.has(url)) {
    loading.set(url, new Promise((resolve, reject) => {
      const script = document.createElement('script');
      script.src = url;
      script.onload = () => resolve();
      script.onerror = () => {
        loading.delete(url);
        script.remove();
        reject(new Error(`${path} cannot be loaded`));
      };
      document.head.append(script);
    }));
  }
  return loading.get(url);
}
